#pragma once
// One collection of a mapped table: the reader's lock-free lookups and the
// writer's updates. Both work on record bytes; Map.h adds the types.
//
// Protocols (docs/shared-memory-tables.md): a slot is a seqlock; a bucket
// names a slot and is published after the slot is written; removal moves
// later entries back under an odd indexSeq; every change appends a
// sequence-numbered entry to the change queue.
#include "gant/Error.h"
#include "pond/Layout.h"
#include "pond/WordCopy.h"

#include <bit>
#if defined(__SSE2__) && defined(__x86_64__)
#include <emmintrin.h>
#endif
#include <cstdint>
#include <deque>
#include <functional>
#include <stdexcept>
#include <string>
#include <algorithm>
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

// Why a word (a slot's seq, the index's indexSeq) stays mid-change.
enum class Held : uint8_t {
   wait,    // by a live writer, inside a change: late (slow, or stopped)
   dead,    // by a writer that died inside a change
   damaged, // by no change at all: bytes changed behind the writer's back
};
// Asks the table's owner about its writer: dead, damaged when the writer
// cannot be inside a change (it sleeps, or it is the caller), else wait.
struct Liveness {
   Held (*held)(const void* context) = nullptr;
   const void* context = nullptr;
};

// Where a collection's areas are in one mapping. The sizes are the reader's
// own (checked against the header at mount) and are never re-read from
// shared memory, so a corrupted header cannot send an access out of bounds.
struct CollectionMap {
   SegmentHeader* segment = nullptr;
   CollectionHeader* header = nullptr;
   unsigned char* slots = nullptr;
   uint8_t* tags = nullptr;         // the index: a tag per bucket
   uint16_t* slotNumbers = nullptr; // and the slot it names
   unsigned char* queue = nullptr;
   uint32_t recordSize = 0, keySize = 0, capacity = 0;
   uint32_t bucketMask = 0, queueMask = 0, slotStride = 0, queueStride = 0;
   KeyHash hashKey = nullptr;
   Liveness liveness;

   static CollectionMap bind(void* base, const SegmentHeader& layout, uint32_t i, KeyHash hash);
   SlotHeader* slot(uint32_t i) const { return reinterpret_cast<SlotHeader*>(slots + std::size_t(i) * slotStride); }
   unsigned char* slotData(uint32_t i) const { return reinterpret_cast<unsigned char*>(slot(i) + 1); }
   QueueEntryHeader* entry(uint32_t sequence) const {
      return reinterpret_cast<QueueEntryHeader*>(queue + std::size_t(sequence & queueMask) * queueStride);
   }
   unsigned char* entryKey(QueueEntryHeader* e) const { return reinterpret_cast<unsigned char*>(e + 1); }
};

// ---- index tags, only ever accessed as whole words ----------------------

constexpr uint32_t kTagsPerWord = kWordSize;
constexpr Word kTagOnes = ~Word(0) / 0xff; // 0x01 in every byte
constexpr Word kTagHighs = kTagOnes << 7;  // 0x80 in every byte

inline Word loadTagWord(const uint8_t* tags, uint32_t word) {
   return loadAcquire(reinterpret_cast<const Word*>(tags)[word]);
}
// 0x80 in the lowest zero byte of x, and maybe in bytes above it, never
// below: the borrow of the subtraction only runs upwards.
inline Word zeroBytes(Word x) { return (x - kTagOnes) & ~x & kTagHighs; }

// Which buckets from byte `first` of the tag word lo on (then on through
// the next word, hi) are empty and which hold tag. Only the lowest set bit
// of either mask is sure to be exact.
#if defined(__SSE2__) && defined(__x86_64__)
using TagMask = uint32_t; // a bit per bucket
constexpr unsigned kMaskBitsPerBucket = 1;
inline void tagMasks(Word lo, Word hi, unsigned first, uint8_t tag, TagMask& empties, TagMask& matches) {
   const __m128i group = _mm_set_epi64x(static_cast<long long>(hi), static_cast<long long>(lo));
   empties = static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(group, _mm_setzero_si128()))) >> first;
   matches = static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(group, _mm_set1_epi8(char(tag))))) >> first;
}
// The mask's buckets that lie in lo.
inline TagMask restOfWord(unsigned first) { return 0xffu >> first; }
#else
using TagMask = Word; // 0x80 in the byte of each bucket
constexpr unsigned kMaskBitsPerBucket = 8;
inline void tagMasks(Word lo, Word hi, unsigned first, uint8_t tag, TagMask& empties, TagMask& matches) {
   // Shifted first: zeroBytes is exact only for the lowest zero byte.
   const Word window = (lo >> (8 * first)) | ((hi << 1) << (8 * kWordSize - 1 - 8 * first));
   empties = zeroBytes(window);
   matches = zeroBytes(window ^ (kTagOnes * tag));
}
inline TagMask restOfWord(unsigned first) { return kTagHighs >> (8 * first); }
#endif

// Of masks from tagMasks: the matches before the first empty bucket. The
// lowest bit of the result, if any, is exact.
inline TagMask matchesBeforeEmpty(TagMask matches, TagMask empties) {
   return matches & ((empties & (TagMask(0) - empties)) - 1);
}

// A lookup's outcome, returned in registers: the status and, when found,
// the record's slot and the seq of the version copied.
struct Lookup {
   ReadStatus status;
   uint32_t slot;
   uint32_t seq;
};

// The lookup's every case, with retries: records mid-write, entries moving
// under the probe, tags that match another key, a corrupt segment. Out of
// line, so that the common path below stays short.
[[gnu::cold]] Lookup lookupSlow(const CollectionMap& m, const void* key, std::size_t keyBytes, uint32_t hash,
                                void* out, std::size_t bytes);

// Reads slot's record into out if it is a live, whole record of key: the
// end of every lookup that found a tag.
template <std::size_t Bytes, class Key>
[[gnu::always_inline]] inline Lookup readFound(const CollectionMap& m, const Key& key, uint32_t hash, uint32_t slot,
                                               void* out) {
   if (slot >= m.capacity) [[unlikely]]
      return lookupSlow(m, &key, sizeof(Key), hash, out, Bytes);
   constexpr uint32_t stride = slotStrideFor(Bytes);
   auto* s = reinterpret_cast<SlotHeader*>(m.slots + std::size_t(slot) * stride);
   const uint32_t s1 = loadAcquire(s->seq);
   const Word keyDiff = copyFromSharedKeyed<Bytes, sizeof(Key)>(out, s + 1, &key);
   acquireFence();
   // One test for the rare cases: mid-write, freed, rewritten or another key.
   if (keyDiff | ((s1 & (kSeqWriting | kSeqLive)) ^ kSeqLive) | (loadRelaxed(s->seq) ^ s1)) [[unlikely]]
      return lookupSlow(m, &key, sizeof(Key), hash, out, Bytes);
   return {ReadStatus::found, slot, s1};
}

// The probe past the end of the home bucket's word of tags: two words
// tested at once, the answer "absent" checked against moving entries.
template <std::size_t Bytes, class Key>
[[gnu::noinline]] Lookup lookupWide(const CollectionMap& m, const Key& key, uint32_t hash, void* out) {
   const uint32_t pos = hash & m.bucketMask;
   const uint8_t tag = bucketTag(hash);
   const uint32_t indexSeq = loadAcquire(m.header->indexSeq);
   // The words are wrapped at the end of the index.
   const uint32_t word = pos / kTagsPerWord, next = (word + 1) & (m.bucketMask / kTagsPerWord);
   TagMask empties, matches;
   tagMasks(loadTagWord(m.tags, word), loadTagWord(m.tags, next), pos % kTagsPerWord, tag, empties, matches);
   const TagMask before = matchesBeforeEmpty(matches, empties);
   if (before == 0) {
      acquireFence();
      if (empties != 0 && ((indexSeq & 1) | (loadRelaxed(m.header->indexSeq) ^ indexSeq)) == 0)
         return {ReadStatus::absent, 0, 0};
      return lookupSlow(m, &key, sizeof(Key), hash, out, Bytes);
   }
   const uint32_t bucket = (pos + static_cast<uint32_t>(std::countr_zero(before)) / kMaskBitsPerBucket) & m.bucketMask;
   return readFound<Bytes>(m, key, hash, loadRelaxed(m.slotNumbers[bucket]), out);
}

// The lookup, compiled for one record and key type so that hashing,
// comparing and copying are inline and of fixed size.
//
// It loads the word of tags that holds the key's home bucket. One atomic
// load sees those buckets at one instant, and the writer never empties a
// bucket in front of a live key (a removal moves later entries back before
// it empties the last one), so an empty bucket there before any match of
// the key's tag proves the key absent. A tag match leads to one slot: a
// whole copy of a live record of this key is a true answer whatever the
// index did meanwhile. Probes past the word go to lookupWide, anything
// unusual to lookupSlow.
template <std::size_t Bytes, class Key, class Hash>
[[gnu::always_inline]] inline Lookup lookupTyped(const CollectionMap& m, const Key& key, Hash hashOf, void* out) {
   const uint32_t hash = hashOf(key);
   const uint32_t pos = hash & m.bucketMask;
   const uint8_t tag = bucketTag(hash);
   const unsigned first = pos % kTagsPerWord; // bucket pos's byte in its word
   const Word word = loadTagWord(m.tags, pos / kTagsPerWord);
   uint32_t bucket = pos;
   // Most keys sit in their home bucket: a predicted branch lets the slot's
   // loads start before the tags are tested further.
   if (static_cast<uint8_t>(word >> (8 * first)) != tag) {
      // The buckets from pos to the end of the word (a zero next word
      // holds no tag, so only the empties need clipping to the word).
      TagMask empties, matches;
      tagMasks(word, 0, first, tag, empties, matches);
      empties &= restOfWord(first);
      const TagMask before = matchesBeforeEmpty(matches, empties);
      if (before == 0) {
         if (empties != 0) return {ReadStatus::absent, 0, 0};
         return lookupWide<Bytes>(m, key, hash, out);
      }
      bucket = pos + static_cast<uint32_t>(std::countr_zero(before)) / kMaskBitsPerBucket;
   }
   return readFound<Bytes>(m, key, hash, loadRelaxed(m.slotNumbers[bucket]), out);
}

class CollectionReader {
 public:
   // Unbound: answers every lookup "absent" until bound to a mapping.
   CollectionReader();
   explicit CollectionReader(const CollectionMap& m) { bind(m); }
   // Points the reader at a (new) mapping of its collection.
   void bind(const CollectionMap& m);

   // Whether the record version (slot, seq) was already found valid, so a
   // warm lookup validates each version once. A reader-private cache.
   bool validated(uint32_t slot, uint32_t seq) const noexcept {
      return (slot < validated_.size() && validated_[slot] == seq) || own_;
   }
   // The writer's view of its own records: nobody else writes them, so
   // there is nothing to check.
   void ownRecords() noexcept { own_ = true; }
   void markValidated(uint32_t slot, uint32_t seq) const {
      if (slot >= validated_.size()) validated_.resize(std::max<std::size_t>(slot + 1, validated_.size() * 2), 0);
      validated_[slot] = seq;
   }
   // Whether copy, a whole copy of version seq of slot, matches the check
   // the writer wrote with it; `changed` when the slot has moved on since
   // (look again).
   enum class Check : uint8_t { ok, bad, changed };
   Check verify(uint32_t slot, uint32_t seq, const void* copy) const;

   // Copies slot i when it holds a record (found), else absent; corrupt
   // when the record does not match its check.
   ReadStatus readSlot(uint32_t i, void* out, uint32_t* seq = nullptr) const;
   uint32_t size() const;
   // The slots a walk need look at: none past them was ever written.
   uint32_t slotsUsed() const;
   // Hints, in two stages, for a lookup of a key that hashes to `hash`:
   // the index words it reads first, then the record its home bucket
   // names. Given stage by stage across several tables, their lookups wait
   // on memory together rather than one after another.
   void prefetchIndex(uint32_t hash) const noexcept {
      const uint32_t pos = hash & m_.bucketMask;
      __builtin_prefetch(reinterpret_cast<const Word*>(m_.tags) + pos / kTagsPerWord);
      __builtin_prefetch(m_.slotNumbers + pos);
   }
   void prefetchRecord(uint32_t hash) const noexcept {
      const uint32_t pos = hash & m_.bucketMask;
      const Word word = loadTagWord(m_.tags, pos / kTagsPerWord);
      if (static_cast<uint8_t>(word >> (8 * (pos % kTagsPerWord))) != bucketTag(hash)) return;
      const uint32_t slot = loadRelaxed(m_.slotNumbers[pos]);
      if (slot >= m_.capacity) return;
      const auto* p = reinterpret_cast<const char*>(m_.slot(slot));
      for (uint32_t at = 0; at < m_.slotStride; at += 64) __builtin_prefetch(p + at);
   }
   const CollectionMap& map() const noexcept { return m_; }

 private:
   CollectionMap m_;
   // Per slot met so far: seq of the version checked (0: none). It grows
   // with the slots lookups meet, so a large table that holds little costs
   // little.
   mutable std::vector<uint32_t> validated_;
   bool own_ = false;
};

class WakeServer;

class CollectionWriter {
 public:
   explicit CollectionWriter(const CollectionMap& m);
   // Readers to wake after each change (none until the writer listens);
   // armed counts the readers waiting for a wake-up.
   void wakeIs(WakeServer* w, const uint32_t* armed) noexcept {
      wake_ = w;
      armed_ = armed;
   }

   // Who hears that a commit found the segment corrupt, and of which key:
   // the table's owner, which still notifies the key.
   using CorruptHandler = std::function<void(const std::string& what, const void* key)>;
   void corruptHandlerIs(CorruptHandler h) { onCorrupt_ = std::move(h); }
   void corrupted(const std::string& what, const void* key) const {
      if (onCorrupt_) onCorrupt_(what, key);
   }

   // A new segment: everything empty.
   void initialize();
   // Whether a segment left by an earlier writer can be repaired in
   // bounded steps (its index has an empty bucket); else it is recreated.
   bool recoverable() const;
   // A segment left by an earlier writer: drop records left mid-write or
   // failing their check, repair the index, rebuild the free list from the
   // slots. Returns how many records survived.
   uint32_t recover();

   // Insert or replace; false (and no change entry) when the stored record
   // is identical. Throws FullError when a new key finds no free slot,
   // CorruptError when the segment's index was written over.
   bool upsert(const void* record);
   bool remove(const void* key);
   void removeAll();
   // A change entry for key without changing it. A record of key gets a
   // new version, so a reader that lapped the queue finds it too.
   void notify(const void* key);

   // upsert() compiled for one record type: inline hash, compare and copy.
   template <class R, class Key, class Hash>
   bool upsertTyped(const R& r, const Key& key, Hash hashOf) {
      const uint32_t hash = hashOf(key);
      uint32_t slot, bucket;
      auto sameKey = [](const void* a, const void* b) { return equalBytes<sizeof(Key)>(a, b); };
      if (!findSlotWith(&key, hash, sameKey, slot, bucket))
         return insertNew(hash, bucket, [&](uint32_t s) { writeSlotBytes<sizeof(R)>(s, &r); },
                          [&](uint32_t s) { enqueueBytes<sizeof(Key)>(s, &key); });
      if (equalBytes<sizeof(R)>(m_.slotData(slot), &r)) return false;
      beginChange();
      keepBeforeRewrite(slot);
      writeSlotBytes<sizeof(R)>(slot, &r);
      enqueueBytes<sizeof(Key)>(slot, &key);
      return true;
   }
   // remove() compiled for one key type.
   template <class Key, class Hash>
   bool removeTyped(const Key& key, Hash hashOf) {
      uint32_t slot, bucket;
      auto sameKey = [](const void* a, const void* b) { return equalBytes<sizeof(Key)>(a, b); };
      if (!findSlotWith(&key, hashOf(key), sameKey, slot, bucket)) return false;
      // Kept as bytes: key may point into the slot about to be rewritten.
      alignas(Key) unsigned char k[sizeof(Key)];
      std::memcpy(k, &key, sizeof(Key));
      removeFound(slot, bucket, [&](uint32_t s) { enqueueBytes<sizeof(Key)>(s, k); });
      return true;
   }

   // The writer reads its own records directly.
   const void* find(const void* key) const;
   uint32_t size() const noexcept { return size_; }
   uint32_t capacity() const noexcept { return m_.capacity; }
   const CollectionMap& map() const noexcept { return m_; }
   template <class F>
   void forEachLive(F f) const {
      for (uint32_t i = 0; i < m_.capacity; ++i)
         if (m_.slot(i)->seq & kSeqLive) f(static_cast<const void*>(m_.slotData(i)));
   }

 private:
   // The writer's probe: the key's slot and bucket when present; otherwise
   // the empty bucket a new record of this key goes to. sameKey compares
   // key bytes: inline and of fixed size on the typed path.
   template <class KeyEq>
   bool findSlotWith(const void* key, uint32_t hash, KeyEq sameKey, uint32_t& slot, uint32_t& bucket) const {
      const uint8_t tag = bucketTag(hash);
      for (uint32_t probe = 0; probe <= m_.bucketMask; ++probe) {
         const uint32_t pos = (hash + probe) & m_.bucketMask;
         const uint8_t t = m_.tags[pos]; // the writer's own: plain reads are safe
         if (t == kTagEmpty) {
            bucket = pos;
            return false;
         }
         if (t != tag) continue;
         const uint32_t s = m_.slotNumbers[pos];
         if (s < m_.capacity && sameKey(m_.slotData(s), key)) { // garbage is met only in repair
            slot = s;
            bucket = pos;
            return true;
         }
      }
      bucket = UINT32_MAX; // never: the index is at most half full
      return false;
   }
   bool findSlot(const void* key, uint32_t hash, uint32_t& slot, uint32_t& bucket) const;
   void writeSlot(uint32_t slot, const void* record);
   // Before a live record is rewritten in place, its bytes and version go to
   // the spare slot past the last one: a writer that dies in the middle of
   // the rewrite leaves the slot odd, and the next writer puts the record
   // back as it was instead of losing it (an index handed out must not be).
   void keepBeforeRewrite(uint32_t slot) {
      SlotHeader* kept = m_.slot(m_.capacity);
      storeRelaxed(kept->seq, 0u);
      copyToShared(m_.slotData(m_.capacity), m_.slotData(slot), m_.recordSize);
      storeRelaxed(kept->check, slot);
      storeRelease(kept->seq, m_.slot(slot)->seq);
   }
   // A slot emptied: a new version without the live bit.
   void clearSlot(uint32_t slot) {
      SlotHeader* s = m_.slot(slot);
      const uint32_t next = nextVersion(s->seq);
      storeRelaxed(s->seq, next | kSeqWriting);
      releaseFence();
      storeRelease(s->seq, next);
   }
   // A live record written whole (rewritten in place, or new in a free slot).
   template <std::size_t Bytes>
   void writeSlotBytes(uint32_t slot, const void* record) {
      SlotHeader* s = m_.slot(slot);
      const uint32_t next = nextVersion(s->seq);
      storeRelaxed(s->seq, next | kSeqWriting);
      releaseFence();
      storeGuarded(s->check, recordCheck(next | kSeqLive, record, Bytes));
      copyToShared(m_.slotData(slot), record, Bytes);
      storeRelease(s->seq, next | kSeqLive);
   }
   // Marks the next change entry odd before a change's first store that a
   // lookup can see: a reader then knows whether a change is under way
   // beyond the queue's head. The stores that follow are ordered after it
   // by their own release fence.
   void beginChange() {
      QueueEntryHeader* e = m_.entry(m_.header->queueHead);
      storeRelaxed(e->lock, e->lock | 1);
   }
   // A change entry; inline so that a key size known at compile time
   // (enqueueBytes) makes the copy fixed and unrolled.
   void enqueueInto(uint32_t slot, const void* key, std::size_t keyBytes) {
      CollectionHeader* h = m_.header;
      const uint32_t sequence = h->queueHead;
      QueueEntryHeader* e = m_.entry(sequence);
      const uint32_t writing = e->lock | 1; // odd already when the change began
      storeRelaxed(e->lock, writing);
      releaseFence();
      storeGuarded(e->sequence, sequence);
      storeGuarded(e->slot, slot);
      storeGuarded(e->slotSeq, slot < m_.capacity ? m_.slot(slot)->seq : 0);
      copyToShared(m_.entryKey(e), key, keyBytes);
      storeRelease(e->lock, writing + 1);
      storeRelease(h->queueHead, sequence + 1);
      storeRelease(m_.segment->changes, m_.segment->changes + 1);
      if (armed_ && *armed_) wakeReaders();
   }
   template <std::size_t KeyBytes>
   void enqueueBytes(uint32_t slot, const void* key) {
      enqueueInto(slot, key, KeyBytes);
   }
   void wakeReaders();
   // A new key: takes a free slot, writes it and publishes it at bucket;
   // the record's copy and its change entry are the caller's, sized or not.
   template <class Write, class Enqueue>
   bool insertNew(uint32_t hash, uint32_t bucket, Write write, Enqueue enqueue) {
      const uint32_t slot = takeSlot(bucket);
      beginChange();
      write(slot);
      setBucket(bucket, slot, bucketTag(hash)); // once the record is in place
      storeRelease(m_.header->size, ++size_);
      enqueue(slot);
      return true;
   }
   // A found key removed from the index and its slot freed.
   template <class Enqueue>
   void removeFound(uint32_t slot, uint32_t bucket, Enqueue enqueue) {
      beginChange();
      removeEntry(bucket);
      clearSlot(slot);
      free_.push_back(slot);
      storeRelease(m_.header->size, --size_);
      enqueue(slot);
   }
   // The free slot a new key at bucket goes to, published to walks before
   // it is written. Throws FullError, CorruptError.
   uint32_t takeSlot(uint32_t bucket);
   void enqueue(uint32_t slot, const void* key);
   // Points bucket at slot: the slot number first, then the tag that
   // publishes it (a reader that sees the tag sees the number).
   void setBucket(uint32_t bucket, uint32_t slot, uint8_t tag);
   // Empties bucket and moves the entries after it back, so that every
   // entry stays reachable from its home bucket without crossing an empty.
   void removeEntry(uint32_t bucket);
   // Whether bucket rightly indexes a live record.
   bool indexedAt(uint32_t bucket) const;
   void repairIndex();

   CollectionMap m_;
   WakeServer* wake_ = nullptr;
   const uint32_t* armed_ = nullptr;
   std::deque<uint32_t> free_; // FIFO: a freed slot is reused last
   std::vector<unsigned char> scratch_; // a record's room, for notify
   CorruptHandler onCorrupt_;
   uint32_t size_ = 0;
   uint32_t slotsUsed_ = 0;
};

// A new key finds no free slot.
class FullError : public Gant::TableError {
 public:
   using Gant::TableError::TableError;
};

// The writer found its own segment holding what no writer writes: another
// process wrote over it.
class CorruptError : public Gant::TableError {
 public:
   using Gant::TableError::TableError;
};

} // namespace Pond
