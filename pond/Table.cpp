#include "pond/Table.h"
#include "pond/WordCopy.h"
#include "pond/WriterLock.h"

#include "flashlog/Flashlog.h"
#include "sys/Calls.h"

#include <fcntl.h>
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace Pond {

namespace {
Flashlog::Handle& trace = Flashlog::handle("Pond");
constexpr double kRetrySeconds = 0.05;
// A reader turned away asks again, and polls the table meanwhile, this often.
constexpr double kRefusedRetrySeconds = 1.0;

// Slot versions wrap: a is newer than b when it is ahead by less than half
// the range.
bool newer(uint32_t a, uint32_t b) { return static_cast<int32_t>(a - b) > 0; }

// Distinguishes one created segment from any other that takes its name.
uint64_t newIncarnation() {
   const auto now = static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
   const auto pid = static_cast<uint64_t>(Sys::calls().getpid().value);
   uint64_t x = now ^ (pid << 40) ^ reinterpret_cast<uintptr_t>(&now);
   x ^= x >> 31;
   x *= 0x9e3779b97f4a7c15ull;
   return (x ^ (x >> 29)) | 1; // never 0: a reader's "none yet"
}
} // namespace

// ---- writer -------------------------------------------------------------------

TableWriter::TableWriter(const std::string& mountPath, const TableShape& shape, std::vector<CollectionCodec> codecs,
                         Loop::EventLoop* loop, const Options& options) {
   const SegmentHeader layout = layoutFor(shape);
   if (codecs.size() != shape.collections.size()) throw std::invalid_argument("one codec per collection");
   const std::string name = Pond::segmentName(options.prefix, mountPath);
   const std::string wakePath = wakeSocketPath(options.socketDir, name);
   wakePath_ = wakePath;
   // One writer per table; the kernel drops the lock when the writer dies.
   lock_ = std::make_unique<WriterLock>(writerLockPath(wakePath), mountPath);
   bool created = false;
   segment_ = Segment::openForWriter(name, layout.segmentSize, options.mode, created, options.keepOtherLayout);
   if (!created) {
      if (std::string why = distrust(layout, codecs); !why.empty()) {
         if (options.keepOtherLayout && why.starts_with("another layout"))
            throw Gant::TableError("shared segment " + name + " holds " + why + "; it is kept, not replaced");
         FLASHLOG(trace, 1, "replacing segment ", name, ": ", why);
         segment_ = Segment();
         Segment::unlink(name);
         segment_ = Segment::openForWriter(name, layout.segmentSize, options.mode, created);
         if (!created) throw Gant::TableError("shared segment " + name + " was recreated by another process");
      }
   }
   SegmentHeader* h = header();
   if (created) {
      SegmentHeader init = layout;
      init.magic = 0; // written last: a reader that finds it finds a whole header
      init.incarnation = newIncarnation();
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
      views_.back()->ownRecords();
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
   storeRelease(h->writerTid, static_cast<uint32_t>(Sys::calls().gettid().value));
   if (loop) {
      if (segment_.truncationFd() >= 0)
         truncation_ = loop->watchReadable(segment_.truncationFd(), [this] {
         truncation_.reset();
         FLASHLOG(trace, 1, "segment ", segment_.name(), " was truncated under its writer");
      });
      wake_ = std::make_unique<WakeServer>(wakePath, options.mode, *loop, [h] { return loadAcquire(h->changes); },
                                           options.maxReaders);
      for (auto& c : collections_) c->wakeIs(wake_.get(), wake_->armedCount());
   }
}

std::string TableWriter::distrust(const SegmentHeader& layout, const std::vector<CollectionCodec>& codecs) {
   if (!magicOk(header())) return "no magic";
   if (std::string why = layoutMismatch(layout, *header()); !why.empty()) return "another layout: " + why;
   for (uint32_t i = 0; i < layout.collectionCount; ++i)
      if (!CollectionWriter(CollectionMap::bind(segment_.base(), layout, i, codecs[i].hash)).recoverable())
         return std::string("the index of ") + layout.collections[i].name + " has no empty bucket";
   return {};
}

TableWriter::~TableWriter() = default;

void TableWriter::unlink() {
   Segment::unlink(segment_.name());
   // A writer without a loop serves no socket: one at the path was left by a
   // writer that died. Our own goes when we do.
   if (!wake_) removeLeftWakeSocket(wakePath_);
}

// ---- reader -------------------------------------------------------------------

TableReader::TableReader(const std::string& mountPath, const TableShape& shape, std::vector<CollectionCodec> codecs,
                         Loop::EventLoop& loop, TableHandler& handler, const Options& options)
    : name_(segmentName(options.prefix, mountPath)), layout_(layoutFor(shape)),
      codecs_(std::move(codecs)), loop_(loop), handler_(handler),
      trustedUid_(options.writerUid),
      wake_(wakeSocketPath(options.socketDir, name_), loop, [this] { poll(); },
            [this] {
               remount_ = true;
               handler_.onWriterGone();
               retryLater();
            },
            [this](const std::string& why) {
               FLASHLOG(trace, 1, "the writer of ", name_, " refused this reader: ", why);
               handler_.onRefused(why);
               retry_ = loop_.timerAfter(kRefusedRetrySeconds, [this] {
                  if (!tryMount()) retryLater();
               });
            }) {
   if (codecs_.size() != shape.collections.size()) throw std::invalid_argument("one codec per collection");
   shadows_.resize(layout_.collectionCount);
   for (uint32_t c = 0; c < layout_.collectionCount; ++c) {
      const CollectionHeader& ch = layout_.collections[c];
      pending_.emplace_back(ch.keySize);
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
   bool connected = wake_.connect();
   if (!mounted() || (remount_ && connected)) {
      // A returning writer may have replaced the segment: map it afresh and
      // compare it with what we reported (the shadows survive).
      const uint64_t before = incarnation_;
      if (!mapSegment()) return false;
      remount_ = false;
      const Resync kind = before != 0 && before == incarnation_ ? Resync::inPlace : Resync::fresh;
      for (std::size_t c = 0; c < readers_.size() && !corrupt_; ++c) resync(c, kind);
      ready_ = true;
      handler_.onReady();
   }
   if (connected && mounted() && !trustWriter()) {
      wake_.disconnect();
      connected = false;
   }
   // Without a writer to wake us (none yet, or it turned us away), poll
   // at every try while looking for one.
   if (mounted()) poll();
   return connected;
}

// The process at the other end of the wake socket must be of the user that
// owns the segment: an impostor's socket would keep us waiting for wakes
// that never come.
bool TableReader::trustWriter() {
   uid_t uid = 0;
   pid_t pid = 0;
   if (!wake_.peerCredentials(uid, pid)) return false;
   if (uid == segment_.owner()) return true;
   refuse("the wake socket of segment " + name_ + " is served by uid " + std::to_string(uid) +
          ", not by the segment's owner uid " + std::to_string(segment_.owner()));
   return false;
}

// Reported once per distinct reason, not at every retry.
void TableReader::refuse(const std::string& why) {
   FLASHLOG(trace, 5, "cannot mount ", name_, ": ", why);
   if (why == refusal_) return;
   refusal_ = why;
   corrupt(why);
}

bool TableReader::mapSegment() {
   Segment s;
   try {
      s = Segment::openForReader(name_, sizeof(SegmentHeader));
   } catch (const std::exception& e) {
      FLASHLOG(trace, 5, "cannot mount ", name_, ": ", e.what());
      return false;
   }
   // Only the writer's user may have written what we are about to trust.
   const auto self = static_cast<uid_t>(Sys::calls().geteuid().value);
   if (s.owner() != self && s.owner() != 0 && s.owner() != trustedUid_) {
      refuse("segment " + name_ + " is owned by uid " + std::to_string(s.owner()) + ", not a trusted writer");
      return false;
   }
   if (s.mode() & 022) {
      char mode[16];
      std::snprintf(mode, sizeof mode, "0%o", unsigned(s.mode()));
      refuse("segment " + name_ + " is writable by others (mode " + mode + ")");
      return false;
   }
   SegmentHeader found;
   copyFromShared(&found, s.base(), sizeof found);
   if (!magicOk(&found)) return false; // its writer is still writing the header
   std::string why = layoutMismatch(layout_, found);
   if (why.empty() && s.size() < layout_.segmentSize) why = "segment truncated";
   if (!why.empty()) {
      refuse("segment " + name_ + " does not match: " + why);
      return false;
   }
   refusal_.clear();
   truncation_.reset();
   segment_ = std::move(s);
   if (segment_.truncationFd() >= 0) truncation_ = loop_.watchReadable(segment_.truncationFd(), [this] { truncated(); });
   corrupt_ = false;
   for (uint32_t c = 0; c < layout_.collectionCount; ++c) {
      CollectionMap m = CollectionMap::bind(segment_.base(), layout_, c, codecs_[c].hash);
      m.liveness = {&TableReader::writerHeld, this};
      readers_[c]->bind(m);
   }
   generation_ = loadAcquire(header()->generation);
   incarnation_ = found.incarnation;
   return true;
}

namespace {
// The scheduler's state letter of a thread ('R', 'S', 'T'...), 0 when it
// cannot be read (no such thread).
char threadState(pid_t pid, pid_t tid) {
   char path[64];
   std::snprintf(path, sizeof path, "/proc/%d/task/%d/stat", int(pid), int(tid));
   Sys::Calls& sys = Sys::calls();
   Sys::Result fd = sys.open(path, O_RDONLY | O_CLOEXEC, 0);
   if (!fd.ok()) return 0;
   char buf[512];
   Sys::Result n = sys.read(static_cast<int>(fd.value), buf, sizeof buf - 1);
   Sys::discard(sys.close(static_cast<int>(fd.value)));
   if (!n.ok() || n.value <= 0) return 0;
   buf[n.value] = 0;
   const char* paren = std::strrchr(buf, ')'); // the command name may hold anything
   return paren && paren[1] == ' ' ? paren[2] : 0;
}
} // namespace

// Asked by a lookup that met a word mid-change for long, without the loop
// (which may be busy in this very lookup). A connected reader sees its
// writer's death as the connection's hang-up; one without a connection
// asks after the process the header names. A live writer inside a change
// is running, runnable, stopped or paging, never asleep; and it is not the
// thread asking.
Held TableReader::writerHeld(const void* self) {
   const auto* r = static_cast<const TableReader*>(self);
   if (!r->mounted()) return Held::dead;
   Sys::Calls& sys = Sys::calls();
   const auto pid = static_cast<pid_t>(loadAcquire(r->header()->writerPid));
   const auto tid = static_cast<pid_t>(loadAcquire(r->header()->writerTid));
   if (r->wake_.connected()) {
      if (r->wake_.peerClosed()) return Held::dead;
      uid_t peerUid = 0;
      pid_t peerPid = 0;
      if (r->wake_.peerCredentials(peerUid, peerPid) && pid != peerPid)
         return Held::damaged; // the header says otherwise than the socket
   } else {
      Sys::Result k = pid > 0 ? sys.kill(pid, 0) : Sys::Result{-1, ESRCH};
      if (!k.ok() && k.err != EPERM) return Held::dead;
   }
   if (tid == static_cast<pid_t>(sys.gettid().value)) return Held::damaged;
   switch (threadState(pid, tid)) {
   case 'R': case 'D': case 'T': case 't': case 'W': return Held::wait;
   default: return Held::damaged; // asleep, or no such thread of the writer
   }
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

// The handler's lookups may see changes the cursor has not reached yet: a
// key stays pending until the cursor passes every change begun before the
// handler returned, so that a lap of the queue meanwhile delivers it again.
// A resync passes its own head: its keys reached by then would only be
// queued to be dropped at its end.
void TableReader::deliver(std::size_t c, const void* key, uint32_t reached) {
   handler_.onChange(c, key);
   acquireFence();
   const CollectionMap& m = readers_[c]->map();
   const uint32_t head = loadAcquire(m.header->queueHead);
   // The entry at the head is odd from a change's first visible store on,
   // and holds the head's number once that change is published.
   const QueueEntryHeader* e = m.entry(head);
   const bool begun = (loadAcquire(e->lock) & 1) || loadGuarded(e->sequence) == head;
   const uint32_t until = head + (begun ? 1 : 0);
   if (newer(until, reached)) pending_[c].push(until, key);
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
   pending_[c].dropReached(cursor);
   if (head - cursor > m.queueMask + 1) return resync(c, Resync::inPlace);
   alignas(8) unsigned char key[kMaxKeySize];
   Shadow& sh = shadows_[c];
   const auto validKey = codecs_[c].validKey;
   for (; cursor != head; ++cursor) {
      QueueEntryHeader* e = m.entry(cursor);
      uint32_t lock = loadAcquire(e->lock);
      uint32_t sequence = loadGuarded(e->sequence);
      uint32_t slot = loadGuarded(e->slot);
      uint32_t slotSeq = loadGuarded(e->slotSeq);
      copyFromShared(key, m.entryKey(e), m.keySize);
      acquireFence();
      // Overwritten while we were behind, or damaged: one pass over the
      // table instead (the slots say what the entry would have).
      if ((lock & 1) || loadRelaxed(e->lock) != lock || sequence != cursor ||
          (slot != UINT32_MAX && slot >= m.capacity) || (validKey && !validKey(key))) {
         cursors_[c] = cursor;
         return resync(c, Resync::inPlace);
      }
      // The shadow only moves forward: a pass may already know a later
      // version of this slot than the entry describes.
      if (slot != UINT32_MAX) sh.cover(std::min(slot + 1, m.capacity), m.keySize);
      if (slot != UINT32_MAX && newer(slotSeq, sh.seq[slot])) {
         sh.seq[slot] = slotSeq;
         std::memcpy(&sh.keys[std::size_t(slot) * m.keySize], key, m.keySize);
      }
      cursors_[c] = cursor + 1;
      deliver(c, key, cursors_[c]);
   }
   pending_[c].dropReached(cursors_[c]);
}

// One pass over the collection that leaves the reader as if it had read
// every change queued before the pass: see "Resynchronising" in the design
// note for why nothing is lost however often the queue laps.
void TableReader::resync(std::size_t c, Resync kind) {
   ++resyncs_;
   const CollectionMap& m = readers_[c]->map();
   const std::string& cname = layout_.collections[c].name;
   const uint32_t head = loadAcquire(m.header->queueHead);
   Shadow& sh = shadows_[c];
   // Keys whose handlers may have looked past the cursor: delivered again.
   redeliver_ = KeyRing(m.keySize);
   std::swap(redeliver_, pending_[c]);
   for (; !redeliver_.empty(); redeliver_.pop()) deliver(c, redeliver_.frontKey(), head);
   if (kind == Resync::fresh) {
      // Versions of another segment compare with nothing: every key known
      // before is delivered, and every slot read.
      for (uint32_t i = 0; i < sh.seq.size(); ++i) {
         if (sh.seq[i] & kSeqLive) deliver(c, &sh.keys[std::size_t(i) * m.keySize], head);
         sh.seq[i] = 0;
      }
   }
   std::vector<unsigned char> record(m.recordSize);
   const auto validKey = codecs_[c].validKey;
   // Slots past the ones written hold nothing; the shadow may know more of
   // a segment the reader followed before.
   const uint32_t used = std::max(readers_[c]->slotsUsed(), uint32_t(std::min<std::size_t>(sh.seq.size(), m.capacity)));
   sh.cover(used, m.keySize);
   for (uint32_t i = 0; i < used; ++i) {
      // A slot's versions only grow within one segment: the version the
      // shadow holds needs no copy and no compare.
      if (loadAcquire(m.slot(i)->seq) == sh.seq[i]) continue;
      uint32_t seq = 0;
      ReadStatus st = readers_[c]->readSlot(i, record.data(), &seq);
      if (st == ReadStatus::stuck) {
         const std::string what = "slot " + std::to_string(i) + " of " + cname + " stayed mid-write";
         FLASHLOG(trace, 1, what);
         handler_.onStuck(what);
         continue; // the shadow keeps what was known; the next writer repairs it
      }
      if (st == ReadStatus::found && validKey && !validKey(record.data())) st = ReadStatus::corrupt;
      if (st == ReadStatus::corrupt) {
         // Reported, and read as no record; it is reported again while it
         // stays as it is.
         const std::string what = "slot " + std::to_string(i) + " of " + cname + " holds a damaged record";
         FLASHLOG(trace, 1, what);
         handler_.onCorrupt(what);
         seq &= ~kSeqLive;
      }
      const bool live = st == ReadStatus::found;
      unsigned char* old = &sh.keys[std::size_t(i) * m.keySize];
      const bool wasLive = sh.seq[i] & kSeqLive;
      const bool sameKey = std::memcmp(old, record.data(), m.keySize) == 0;
      const uint32_t oldSeq = sh.seq[i];
      // The shadow first: a handler's lookups may look past this slot.
      sh.seq[i] = seq;
      alignas(8) unsigned char gone[kMaxKeySize];
      if (wasLive && (!live || !sameKey)) std::memcpy(gone, old, m.keySize);
      if (live) std::memcpy(old, record.data(), m.keySize);
      if (wasLive && (!live || !sameKey)) deliver(c, gone, head);
      if (live && (!wasLive || !sameKey || oldSeq != seq)) deliver(c, record.data(), head);
   }
   cursors_[c] = head;
   pending_[c].dropReached(head);
}

} // namespace Pond
