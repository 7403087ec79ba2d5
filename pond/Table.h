#pragma once
// A table in shared memory: one segment named after its mount path, holding
// one to four collections, with one writer process and any number of reader
// processes that come and go independently of it.
#include "pond/Collection.h"
#include "pond/KeyRing.h"
#include "pond/Segment.h"
#include "pond/Shape.h"
#include "pond/Wake.h"

#include <memory>
#include <string>
#include <algorithm>
#include <vector>

namespace Pond {

struct Options {
   std::string prefix = "mcastfib"; // of the shared-memory object's name
   std::string socketDir = "/dev/shm";
   mode_t mode = 0600;              // owner-only unless a group is asked for
   // Readers trust a table whose segment and wake socket belong to their
   // own user or to root; set this to trust one other writer user too.
   uid_t writerUid = static_cast<uid_t>(-1);
   // Connections a writer keeps for readers; more are told they are refused.
   std::size_t maxReaders = 256;
   // A writer that finds a segment of another layout (size, type, record
   // shapes) under its name replaces it. A table whose contents must outlive
   // its writer (indexes handed out) refuses it instead: a new layout would
   // silently lose them.
   bool keepOtherLayout = false;
};

// Per collection: how to hash a key, and (optionally) whether key bytes met
// in shared memory are a valid key at all.
struct CollectionCodec {
   KeyHash hash = nullptr;
   bool (*validKey)(const void* key) = nullptr;
};

class WriterLock;

class TableWriter {
 public:
   // Creates the table, or re-opens the one a previous writer of this path
   // left (after a crash, say) and continues from its contents. A segment of
   // another layout is replaced (or refused: keepOtherLayout). Throws when
   // another writer holds the table.
   TableWriter(const std::string& mountPath, const TableShape& shape, std::vector<CollectionCodec> codecs,
               Loop::EventLoop* loop, const Options& options = {});
   ~TableWriter();

   CollectionWriter& collection(std::size_t i) { return *collections_.at(i); }
   // The writer's own records, read the way readers read them.
   const CollectionReader& view(std::size_t i) const { return *views_.at(i); }
   uint32_t generation() const noexcept { return header()->generation; }
   bool recovered() const noexcept { return recovered_; }
   const std::string& segmentName() const noexcept { return segment_.name(); }
   std::size_t segmentSize() const noexcept { return segment_.size(); }
   std::size_t readers() const noexcept { return wake_ ? wake_->readers() : 0; }
   // Readers asleep, waiting for the next change to wake them.
   uint32_t armedReaders() const noexcept { return wake_ ? *wake_->armedCount() : 0; }
   // Removes the table's name (and a dead writer's wake socket); readers keep
   // their mapping until they unmount.
   void unlink();
   // The object was truncated under the writer (by another process of its
   // user): its writes since go to private memory. Reopen the table.
   bool truncated() const noexcept { return segment_.truncated(); }

 private:
   SegmentHeader* header() const noexcept { return static_cast<SegmentHeader*>(segment_.base()); }
   // Why the segment an earlier writer left cannot be recovered, or empty.
   std::string distrust(const SegmentHeader& layout, const std::vector<CollectionCodec>& codecs);

   std::unique_ptr<WriterLock> lock_; // first in, last out
   std::string wakePath_;
   Segment segment_;
   std::unique_ptr<WakeServer> wake_;
   Loop::Watch truncation_;
   std::vector<std::unique_ptr<CollectionWriter>> collections_;
   std::vector<std::unique_ptr<CollectionReader>> views_;
   bool recovered_ = false;
};

// What a reader hears. Handlers run on the reader's event loop.
class TableHandler {
 public:
   virtual ~TableHandler() = default;
   // A key of collection c changed (inserted, replaced, removed or notified).
   virtual void onChange(std::size_t c, const void* key) { (void)c, (void)key; }
   // The reader has caught up with the table after mounting or resynchronising.
   virtual void onReady() {}
   // The writer's process ended; changes resume when a writer returns.
   virtual void onWriterGone() {}
   // A record stayed mid-write: its writer died while writing it. It is
   // looked at again when a writer returns and repairs the table.
   virtual void onStuck(const std::string& what) { (void)what; }
   // The segment holds what no writer writes; the text says what.
   virtual void onCorrupt(const std::string& what) { (void)what; }
   // The writer turned this reader away (it serves too many): the reader
   // still reads the table, polling it now and then instead of being
   // woken, and asks again later.
   virtual void onRefused(const std::string& why) { (void)why; }
};

class TableReader {
 public:
   // Mounts the table from the loop as soon as it exists (trying again until
   // it does). Refuses, through onCorrupt, a segment of another layout.
   TableReader(const std::string& mountPath, const TableShape& shape, std::vector<CollectionCodec> codecs,
               Loop::EventLoop& loop, TableHandler& handler, const Options& options = {});
   ~TableReader();

   bool mounted() const noexcept { return segment_.base() != nullptr; }
   bool ready() const noexcept { return ready_; }
   // Connected to a live writer (false after it went away, until it returns).
   bool writerConnected() const noexcept { return wake_.connected(); }
   // Stays at one address for the reader's life; answers "absent" while
   // the table is not mounted.
   const CollectionReader& collection(std::size_t i) const { return *readers_.at(i); }
   // Delivers the changes waiting now (wake-ups do this by themselves).
   void poll();
   uint64_t wakeups() const noexcept { return wake_.wakeups(); }
   uint64_t resyncs() const noexcept { return resyncs_; }

 private:
   // Per slot, what the reader last knew of it: the seq of the version (its
   // live bit says whether it held a record) and that record's key.
   // It covers the slots written so far, not the capacity: a large table
   // that holds little costs a reader little.
   struct Shadow {
      std::vector<uint32_t> seq; // 0 = nothing known
      std::vector<unsigned char> keys;
      void cover(uint32_t slots, uint32_t keySize) {
         if (slots <= seq.size()) return;
         slots = std::max<uint32_t>(slots, uint32_t(seq.size()) * 2);
         seq.resize(slots, 0);
         keys.resize(std::size_t(slots) * keySize, 0);
      }
   };
   bool tryMount();
   bool mapSegment();
   void retryLater();
   // Whether a resynchronisation compares the shadow with slot versions of
   // the same incarnation of the segment, or with another's (where versions
   // mean nothing and everything is delivered).
   enum class Resync : uint8_t { inPlace, fresh };
   void resync(std::size_t c, Resync kind);
   void drain(std::size_t c);
   // `reached`: the queue position the cursor is sure to pass once the
   // caller is done (a resync's own head), below which nothing is kept.
   void deliver(std::size_t c, const void* key, uint32_t reached);
   void corrupt(const std::string& what);
   void refuse(const std::string& why);
   void truncated();
   bool trustWriter();
   static Held writerHeld(const void* self);
   const SegmentHeader* header() const noexcept { return static_cast<const SegmentHeader*>(segment_.base()); }

   std::string name_;
   SegmentHeader layout_;
   std::vector<CollectionCodec> codecs_;
   Loop::EventLoop& loop_;
   TableHandler& handler_;
   Segment segment_;
   std::vector<std::unique_ptr<CollectionReader>> readers_;
   std::vector<Shadow> shadows_;
   std::vector<KeyRing> pending_;  // per collection: keys delivered while behind
   KeyRing redeliver_;             // the pending keys a resync delivers again
   std::vector<uint32_t> cursors_;
   uid_t trustedUid_;
   std::string refusal_;           // the last refusal reported, not repeated
   WakeClient wake_;
   Loop::Timer retry_;
   Loop::Watch truncation_;
   uint32_t generation_ = 0;
   uint64_t incarnation_ = 0;
   bool ready_ = false;
   bool corrupt_ = false;
   bool remount_ = false;
   uint64_t resyncs_ = 0;
};

} // namespace Pond
