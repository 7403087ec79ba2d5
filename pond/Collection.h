#pragma once
// One collection of a mapped table: the reader's lock-free lookups and the
// writer's updates. Both work on record bytes; Map.h adds the types.
//
// Protocols (docs/shared-memory-tables.md): a slot is a seqlock; a bucket
// names a slot and is published after the slot is written; removal leaves a
// tombstone; a full rebuild goes to the other index and flips indexEpoch;
// every change appends a sequence-numbered entry to the change queue.
#include "pond/Layout.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Pond {

enum class ReadStatus : uint8_t {
   found,
   absent,
   stuck,   // a slot stayed mid-write: its writer died while writing it
   corrupt, // the segment holds what no writer writes
};
const char* readStatusName(ReadStatus s) noexcept;

using KeyHash = uint32_t (*)(const void* key);

// Where a collection's areas are in one mapping. The sizes are the reader's
// own (checked against the header at mount) and are never re-read from
// shared memory, so a corrupted header cannot send an access out of bounds.
struct CollectionMap {
   SegmentHeader* segment = nullptr;
   CollectionHeader* header = nullptr;
   unsigned char* slots = nullptr;
   uint32_t* index[2] = {nullptr, nullptr};
   unsigned char* queue = nullptr;
   uint32_t recordSize = 0, keySize = 0, capacity = 0;
   uint32_t bucketMask = 0, queueMask = 0, slotStride = 0, queueStride = 0;
   KeyHash hashKey = nullptr;

   static CollectionMap bind(void* base, const SegmentHeader& layout, uint32_t i, KeyHash hash);
   SlotHeader* slot(uint32_t i) const { return reinterpret_cast<SlotHeader*>(slots + std::size_t(i) * slotStride); }
   unsigned char* slotData(uint32_t i) const { return reinterpret_cast<unsigned char*>(slot(i) + 1); }
   QueueEntryHeader* entry(uint32_t sequence) const {
      return reinterpret_cast<QueueEntryHeader*>(queue + std::size_t(sequence & queueMask) * queueStride);
   }
   unsigned char* entryKey(QueueEntryHeader* e) const { return reinterpret_cast<unsigned char*>(e + 1); }
};

// How long a reader waits for a slot or entry left mid-write before it
// gives up and reports it.
constexpr int kMaxReadSpins = 20000;

class CollectionReader {
 public:
   explicit CollectionReader(const CollectionMap& m) : m_(m) {}

   // Copies the record of key into out (recordSize bytes) when found.
   ReadStatus lookup(const void* key, void* out) const;
   // Copies slot i when it holds a record (found), else absent.
   ReadStatus readSlot(uint32_t i, void* out, uint32_t* seq = nullptr) const;
   uint32_t size() const;
   const CollectionMap& map() const noexcept { return m_; }

 private:
   CollectionMap m_;
};

class CollectionWriter {
 public:
   CollectionWriter(const CollectionMap& m, std::function<void()> changed);

   // A new segment: everything empty.
   void initialize();
   // A segment left by an earlier writer: drop records left mid-write,
   // rebuild the index and the free list from the slots. Returns how many
   // records survived.
   uint32_t recover();

   // Insert or replace; false (and no change entry) when the stored record
   // is identical. Throws FullError when a new key finds no free slot.
   bool upsert(const void* record);
   bool remove(const void* key);
   void removeAll();
   // A change entry for key without changing it.
   void notify(const void* key);

   // The writer reads its own records directly.
   const void* find(const void* key) const;
   uint32_t size() const noexcept { return size_; }
   uint32_t capacity() const noexcept { return m_.capacity; }
   const CollectionMap& map() const noexcept { return m_; }
   template <class F>
   void forEachLive(F f) const {
      for (uint32_t i = 0; i < m_.capacity; ++i)
         if (m_.slot(i)->live) f(static_cast<const void*>(m_.slotData(i)));
   }

 private:
   bool findSlot(const void* key, uint32_t hash, uint32_t& slot, uint32_t& bucket) const;
   void writeSlot(uint32_t slot, const void* record, uint32_t live);
   void enqueue(uint32_t slot, const void* key);
   void rebuildIndex();

   CollectionMap m_;
   std::function<void()> changed_;
   std::deque<uint32_t> free_; // FIFO: a freed slot is reused last
   uint32_t size_ = 0;
   uint32_t tombstones_ = 0;
};

class FullError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

} // namespace Pond
