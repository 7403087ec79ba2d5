#include "pond/Table.h"
#include "pond/WordCopy.h"

#include "flashlog/Flashlog.h"
#include "sys/Calls.h"

#include <sys/file.h>

#include <cstring>
#include <stdexcept>

namespace Pond {

namespace {
Flashlog::Handle& trace = Flashlog::handle("Pond");
constexpr double kRetrySeconds = 0.05;
} // namespace

// ---- writer -------------------------------------------------------------------

TableWriter::TableWriter(const std::string& mountPath, const TableShape& shape, std::vector<CollectionCodec> codecs,
                         Loop::EventLoop* loop, const Options& options) {
   const SegmentHeader layout = layoutFor(shape);
   if (codecs.size() != shape.collections.size()) throw std::invalid_argument("one codec per collection");
   const std::string name = Pond::segmentName(options.prefix, mountPath);
   bool created = false;
   segment_ = Segment::openForWriter(name, layout.segmentSize, options.mode, created);
   // One writer per table; the kernel drops the lock when the writer dies.
   if (!Sys::calls().flock(segment_.fd(), LOCK_EX | LOCK_NB).ok())
      throw std::runtime_error("table " + mountPath + " already has a live writer");
   if (!created && (segment_.size() != layout.segmentSize || !magicOk(header()) ||
                    !layoutMismatch(layout, *header()).empty())) {
      FLASHLOG(trace, 1, "replacing segment ", name, " of another layout");
      Segment::unlink(name);
      segment_ = Segment::openForWriter(name, layout.segmentSize, options.mode, created);
      Sys::check(Sys::calls().flock(segment_.fd(), LOCK_EX | LOCK_NB), "flock");
   }
   SegmentHeader* h = header();
   if (created) {
      SegmentHeader init = layout;
      init.magic = 0; // written last: a reader that finds it finds a whole header
      std::memcpy(h, &init, sizeof init);
      releaseFence();
      auto* w = reinterpret_cast<uint32_t*>(&h->magic);
      storeRelease(w[0], static_cast<uint32_t>(kMagic));
      storeRelease(w[1], static_cast<uint32_t>(kMagic >> 32));
   }
   for (uint32_t i = 0; i < layout.collectionCount; ++i) {
      CollectionMap m = CollectionMap::bind(segment_.base(), layout, i, codecs[i].hash);
      collections_.push_back(std::make_unique<CollectionWriter>(m));
      views_.push_back(std::make_unique<CollectionReader>(m));
      if (created) {
         collections_.back()->initialize();
      } else {
         uint32_t kept = collections_.back()->recover();
         FLASHLOG(trace, 2, "recovered ", kept, " records of ", layout.collections[i].name, " in ", name);
      }
      storeRelease(h->collections[i].ready, 1);
   }
   recovered_ = !created;
   storeRelease(h->generation, h->generation + 1);
   storeRelease(h->writerPid, static_cast<uint32_t>(Sys::calls().getpid().value));
   if (loop) {
      wake_ = std::make_unique<WakeServer>(wakeSocketPath(options.socketDir, name), options.mode, *loop,
                                           [h] { return loadAcquire(h->changes); });
      for (auto& c : collections_) c->wakeIs(wake_.get(), wake_->armedCount());
   }
}

TableWriter::~TableWriter() = default;

void TableWriter::unlink() { Segment::unlink(segment_.name()); }

// ---- reader -------------------------------------------------------------------

TableReader::TableReader(const std::string& mountPath, const TableShape& shape, std::vector<CollectionCodec> codecs,
                         Loop::EventLoop& loop, TableHandler& handler, const Options& options)
    : name_(segmentName(options.prefix, mountPath)), layout_(layoutFor(shape)),
      codecs_(std::move(codecs)), loop_(loop), handler_(handler),
      wake_(wakeSocketPath(options.socketDir, name_), loop, [this] { poll(); },
            [this] {
               remount_ = true;
               handler_.onWriterGone();
               retryLater();
            }) {
   if (codecs_.size() != shape.collections.size()) throw std::invalid_argument("one codec per collection");
   shadows_.resize(layout_.collectionCount);
   for (uint32_t c = 0; c < layout_.collectionCount; ++c) {
      shadows_[c].seq.assign(layout_.collections[c].capacity, 0);
      shadows_[c].keys.assign(std::size_t(layout_.collections[c].capacity) * layout_.collections[c].keySize, 0);
   }
   cursors_.assign(layout_.collectionCount, 0);
   for (uint32_t c = 0; c < layout_.collectionCount; ++c) readers_.push_back(std::make_unique<CollectionReader>());
   // Mount from the loop: handlers run on the loop, never inside this constructor.
   retry_ = loop_.timerAfter(0, [this] {
      if (!tryMount()) retryLater();
   });
}

TableReader::~TableReader() = default;

void TableReader::retryLater() {
   retry_ = loop_.timerAfter(kRetrySeconds, [this] {
      if (!tryMount()) retryLater();
   });
}

bool TableReader::tryMount() {
   // Connect first: a change made while we read is then sure to wake us.
   const bool connected = wake_.connect();
   if (!mounted() || (remount_ && connected)) {
      // A returning writer may have replaced the segment: map it afresh and
      // compare it with what we reported (the shadows survive).
      if (!mapSegment()) return false;
      remount_ = false;
      for (std::size_t c = 0; c < readers_.size() && !corrupt_; ++c) resync(c, Resync::remounted);
      ready_ = true;
      handler_.onReady();
   }
   if (connected) poll();
   // Without a writer to wake us, keep looking for one.
   return connected;
}

bool TableReader::mapSegment() {
   Segment s;
   try {
      s = Segment::openForReader(name_, sizeof(SegmentHeader));
   } catch (const std::exception& e) {
      FLASHLOG(trace, 5, "cannot mount ", name_, ": ", e.what());
      return false;
   }
   SegmentHeader found;
   copyFromShared(&found, s.base(), sizeof found);
   if (!magicOk(&found)) return false; // its writer is still writing the header
   std::string why = layoutMismatch(layout_, found);
   if (why.empty() && s.size() < layout_.segmentSize) why = "segment truncated";
   if (!why.empty()) {
      corrupt("segment " + name_ + " does not match: " + why);
      return false;
   }
   truncation_.reset();
   segment_ = std::move(s);
   if (segment_.truncationFd() >= 0) truncation_ = loop_.watchReadable(segment_.truncationFd(), [this] { truncated(); });
   corrupt_ = false;
   for (uint32_t c = 0; c < layout_.collectionCount; ++c)
      readers_[c]->bind(CollectionMap::bind(segment_.base(), layout_, c, codecs_[c].hash));
   generation_ = loadAcquire(header()->generation);
   return true;
}

void TableReader::poll() {
   if (!mounted() || corrupt_) return;
   if (segment_.truncated()) return truncated();
   if (!magicOk(header())) return corrupt("segment " + name_ + " lost its magic");
   uint32_t seen = loadAcquire(header()->changes);
   uint32_t generation = loadAcquire(header()->generation);
   if (generation != generation_) {
      generation_ = generation;
      for (std::size_t c = 0; c < readers_.size(); ++c) resync(c, Resync::inPlace);
   }
   // A pass leaves the changes queued during it: take those too.
   for (std::size_t c = 0; c < readers_.size() && !corrupt_; ++c) drain(c);
   wake_.ack(seen);
}

void TableReader::deliver(std::size_t c, const void* key) {
   if (codecs_[c].validKey && !codecs_[c].validKey(key))
      return corrupt("an invalid key in collection " + std::string(layout_.collections[c].name));
   handler_.onChange(c, key);
}

// The segment shrank under the mapping: what was cut off reads as zeros,
// which no writer wrote, so the table is reported like any corruption.
void TableReader::truncated() {
   truncation_.reset();
   if (!corrupt_) corrupt("segment " + name_ + " was truncated under its reader");
}

void TableReader::corrupt(const std::string& what) {
   corrupt_ = true;
   FLASHLOG(trace, 1, "corrupt: ", what);
   handler_.onCorrupt(what);
}

void TableReader::drain(std::size_t c) {
   const CollectionMap& m = readers_[c]->map();
   const uint32_t head = loadAcquire(m.header->queueHead);
   uint32_t cursor = cursors_[c];
   if (head - cursor > m.queueMask + 1) return resync(c, Resync::inPlace);
   alignas(8) unsigned char key[kMaxKeySize];
   Shadow& sh = shadows_[c];
   for (; cursor != head; ++cursor) {
      QueueEntryHeader* e = m.entry(cursor);
      uint32_t lock = loadAcquire(e->lock);
      uint32_t sequence = loadGuarded(e->sequence);
      uint32_t slot = loadGuarded(e->slot);
      uint32_t slotSeq = loadGuarded(e->slotSeq);
      copyFromShared(key, m.entryKey(e), m.keySize);
      acquireFence();
      if ((lock & 1) || loadRelaxed(e->lock) != lock || sequence != cursor) {
         // Overwritten while we were behind: one pass over the table instead.
         cursors_[c] = cursor;
         return resync(c, Resync::inPlace);
      }
      if (slot != UINT32_MAX) {
         if (slot >= m.capacity) return corrupt("change entry names slot " + std::to_string(slot));
         sh.seq[slot] = slotSeq;
         std::memcpy(&sh.keys[std::size_t(slot) * m.keySize], key, m.keySize);
      }
      cursors_[c] = cursor + 1;
      deliver(c, key);
      if (corrupt_) return;
   }
}

void TableReader::resync(std::size_t c, Resync kind) {
   ++resyncs_;
   const CollectionMap& m = readers_[c]->map();
   const uint32_t head = loadAcquire(m.header->queueHead);
   Shadow& sh = shadows_[c];
   std::vector<unsigned char> record(m.recordSize);
   for (uint32_t i = 0; i < m.capacity; ++i) {
      // In the segment the shadow was taken from, a slot's seq only grows:
      // the version already reported needs no copy and no compare. (A new
      // segment starts its seqs afresh, so there every slot is compared.)
      if (kind == Resync::inPlace && loadAcquire(m.slot(i)->seq) == sh.seq[i]) continue;
      uint32_t seq = 0;
      ReadStatus st = readers_[c]->readSlot(i, record.data(), &seq);
      if (st == ReadStatus::stuck) {
         FLASHLOG(trace, 1, "slot ", i, " of ", layout_.collections[c].name, " stayed mid-write");
         handler_.onStuck("slot " + std::to_string(i) + " of " + layout_.collections[c].name + " stayed mid-write");
         continue; // the shadow keeps what was reported; a later pass sees the repair
      }
      const bool live = st == ReadStatus::found;
      unsigned char* old = &sh.keys[std::size_t(i) * m.keySize];
      const bool wasLive = sh.seq[i] & kSeqLive;
      const bool sameKey = std::memcmp(old, record.data(), m.keySize) == 0;
      if (wasLive && (!live || !sameKey)) {
         alignas(8) unsigned char gone[kMaxKeySize];
         std::memcpy(gone, old, m.keySize);
         deliver(c, gone);
         if (corrupt_) return;
      }
      if (live && (!wasLive || !sameKey || sh.seq[i] != seq)) {
         deliver(c, record.data());
         if (corrupt_) return;
      }
      sh.seq[i] = seq;
      if (live) std::memcpy(old, record.data(), m.keySize);
   }
   cursors_[c] = head;
}

} // namespace Pond
