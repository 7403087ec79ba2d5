#include "pond/Collection.h"
#include "pond/Probe.h"
#include "pond/WordCopy.h"
#include "pond/Wake.h"
#include "sys/Calls.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace Pond {

const char* readStatusName(ReadStatus s) noexcept {
   switch (s) {
   case ReadStatus::found: return "found";
   case ReadStatus::absent: return "absent";
   case ReadStatus::stuck: return "stuck";
   case ReadStatus::corrupt: return "corrupt";
   }
   return "?";
}

CollectionMap CollectionMap::bind(void* base, const SegmentHeader& layout, uint32_t i, KeyHash hash) {
   auto* b = static_cast<unsigned char*>(base);
   const CollectionHeader& c = layout.collections[i];
   CollectionMap m;
   m.segment = static_cast<SegmentHeader*>(base);
   m.header = &m.segment->collections[i];
   m.slots = b + c.slotsOffset;
   m.tags = b + c.indexOffset;
   m.slotNumbers = reinterpret_cast<uint16_t*>(b + c.indexOffset + indexTagBytes(c.bucketCount));
   m.queue = b + c.queueOffset;
   m.recordSize = c.recordSize;
   m.keySize = c.keySize;
   m.capacity = c.capacity;
   m.bucketMask = c.bucketCount - 1;
   m.queueMask = c.queueLength - 1;
   m.slotStride = c.slotStride;
   m.queueStride = c.queueStride;
   m.hashKey = hash;
   return m;
}

// ---- reader ---------------------------------------------------------------

namespace {
// What an unbound reader looks at: an index of empty buckets and no slots,
// so that a lookup needs no test of its own to answer "absent".
struct EmptyCollection {
   SegmentHeader segment{};
   alignas(8) uint8_t tags[kMinBuckets]{};
   uint16_t slots[kMinBuckets]{};
   CollectionMap map() {
      CollectionMap m;
      m.segment = &segment;
      m.header = &segment.collections[0];
      m.tags = tags;
      m.slotNumbers = slots;
      m.bucketMask = kMinBuckets - 1;
      return m;
   }
};
} // namespace

CollectionReader::CollectionReader() {
   static EmptyCollection empty;
   bind(empty.map());
}

void CollectionReader::bind(const CollectionMap& m) {
   m_ = m;
   validated_.clear();
}

Held whyHeld(const CollectionMap& m, const uint32_t& word, uint32_t seen) {
   if (!m.queue) return Held::dead;
   const QueueEntryHeader* e = m.entry(loadAcquire(m.header->queueHead));
   if (!(loadAcquire(e->lock) & 1) && loadAcquire(word) == seen) return Held::damaged;
   const Held why = m.liveness.held ? m.liveness.held(m.liveness.context) : Held::dead;
   // What the owner saw may postdate the change that held the word.
   if (why != Held::wait && loadAcquire(word) == seen) return why;
   Sys::discard(Sys::calls().nanosleep(200 * 1000)); // a pause; cut short, it is only shorter
   return Held::wait;
}

Lookup lookupSlow(const CollectionMap& m, const void* key, std::size_t keyBytes, uint32_t hash, void* out,
                  std::size_t bytes) {
   const uint8_t tag = bucketTag(hash);
   for (int attempt = 0;; ++attempt) {
      const uint32_t indexSeq = loadAcquire(m.header->indexSeq);
      if (indexSeq & 1) {
         if (attempt >= kMaxReadSpins) {
            attempt = 0;
            const Held why = whyHeld(m, m.header->indexSeq, indexSeq);
            if (why == Held::dead) return {ReadStatus::stuck, 0, 0};
            if (why == Held::damaged) return {ReadStatus::corrupt, 0, 0};
         }
         cpuRelax();
         continue;
      }
      for (uint32_t probe = 0; probe <= m.bucketMask; ++probe) {
         const uint32_t pos = (hash + probe) & m.bucketMask;
         const uint8_t t = loadTag(m.tags, pos);
         if (t == kTagEmpty) break;
         if (t != tag) continue;
         const uint32_t slot = loadRelaxed(m.slotNumbers[pos]);
         if (slot >= m.capacity) return {ReadStatus::corrupt, 0, 0};
         uint32_t seq = 0;
         ReadStatus r = readSlotInto(m, slot, out, bytes, seq);
         if (r == ReadStatus::found && std::memcmp(out, key, keyBytes) == 0) return {ReadStatus::found, slot, seq};
         if (r == ReadStatus::stuck || r == ReadStatus::corrupt) return {r, 0, 0};
      }
      // Read across several words of tags: not found is true only if no
      // entry moved meanwhile.
      acquireFence();
      if (loadRelaxed(m.header->indexSeq) == indexSeq) return {ReadStatus::absent, 0, 0};
   }
}

ReadStatus CollectionReader::readSlot(uint32_t i, void* out, uint32_t* seqOut) const {
   uint32_t seq = 0, check = 0;
   ReadStatus r = readSlotInto(m_, i, out, m_.recordSize, seq, &check);
   if (seqOut) *seqOut = seq;
   if (r == ReadStatus::found && !own_ && check != recordCheck(seq, out, m_.recordSize)) return ReadStatus::corrupt;
   return r;
}

CollectionReader::Check CollectionReader::verify(uint32_t slot, uint32_t seq, const void* copy) const {
   SlotHeader* s = m_.slot(slot);
   if (loadAcquire(s->seq) != seq) return Check::changed;
   const uint32_t check = loadGuarded(s->check);
   acquireFence();
   if (loadRelaxed(s->seq) != seq) return Check::changed;
   return check == recordCheck(seq, copy, m_.recordSize) ? Check::ok : Check::bad;
}

uint32_t CollectionReader::size() const { return loadAcquire(m_.header->size); }

uint32_t CollectionReader::slotsUsed() const { return std::min(loadAcquire(m_.header->slotsUsed), m_.capacity); }

// ---- writer ---------------------------------------------------------------

CollectionWriter::CollectionWriter(const CollectionMap& m) : m_(m), scratch_(m.recordSize) {}

void CollectionWriter::initialize() {
   free_.clear();
   for (uint32_t i = 0; i < m_.capacity; ++i) free_.push_back(i);
   size_ = 0;
   slotsUsed_ = 0;
   storeRelease(m_.header->slotsUsed, 0);
   storeRelease(m_.header->size, 0);
}

bool CollectionWriter::recoverable() const {
   // Every step of the repair ends at an empty bucket; a writer never fills
   // the index past half, so an index without one was not left by a writer.
   const auto* words = reinterpret_cast<const Word*>(m_.tags);
   for (uint32_t w = 0; w < (m_.bucketMask + 1) / kTagsPerWord; ++w)
      if (zeroBytes(words[w])) return true;
   return false;
}

uint32_t CollectionWriter::recover() {
   free_.clear();
   size_ = 0;
   // Repair rewrites slots and moves index entries: a change under way to
   // readers, until the first change this writer publishes.
   beginChange();
   const SlotHeader* kept = m_.slot(m_.capacity);
   for (uint32_t i = 0; i < m_.capacity; ++i) {
      SlotHeader* s = m_.slot(i);
      // Left in the middle of a rewrite in place: back to the record kept
      // before it, as a new version.
      if (s->seq == (nextVersion(kept->seq) | kSeqWriting) && kept->check == i && (kept->seq & kSeqLive)) {
         const uint32_t seq = nextVersion(s->seq) | kSeqLive;
         copyToShared(m_.slotData(i), m_.slotData(m_.capacity), m_.recordSize);
         storeGuarded(s->check, recordCheck(seq, m_.slotData(i), m_.recordSize));
         storeRelease(s->seq, seq);
         continue;
      }
      // Left mid-write by a writer that died, or changed behind the
      // writers' backs: the record is lost.
      if ((s->seq & kSeqWriting) ||
          ((s->seq & kSeqLive) && s->check != recordCheck(s->seq, m_.slotData(i), m_.recordSize)))
         storeRelease(s->seq, nextVersion(s->seq));
   }
   // Change entries left mid-write: close them (they read as overwritten).
   for (uint32_t q = 0; q <= m_.queueMask; ++q) {
      QueueEntryHeader* e = m_.entry(q);
      if (e->lock & 1) storeRelease(e->lock, e->lock + 1);
   }
   repairIndex();
   slotsUsed_ = 0;
   for (uint32_t i = 0; i < m_.capacity; ++i) {
      if (m_.slot(i)->seq != 0) slotsUsed_ = i + 1;
      if (m_.slot(i)->seq & kSeqLive) ++size_;
      else free_.push_back(i);
   }
   storeRelease(m_.header->slotsUsed, slotsUsed_);
   storeRelease(m_.header->size, size_);
   return size_;
}

bool CollectionWriter::findSlot(const void* key, uint32_t hash, uint32_t& slot, uint32_t& bucket) const {
   return findSlotWith(
       key, hash, [this](const void* a, const void* b) { return std::memcmp(a, b, m_.keySize) == 0; }, slot,
       bucket);
}

const void* CollectionWriter::find(const void* key) const {
   uint32_t slot, bucket;
   return findSlot(key, m_.hashKey(key), slot, bucket) ? m_.slotData(slot) : nullptr;
}

void CollectionWriter::writeSlot(uint32_t slot, const void* record) {
   SlotHeader* s = m_.slot(slot);
   const uint32_t next = nextVersion(s->seq);
   storeRelaxed(s->seq, next | kSeqWriting);
   releaseFence();
   storeGuarded(s->check, recordCheck(next | kSeqLive, record, m_.recordSize));
   copyToShared(m_.slotData(slot), record, m_.recordSize);
   storeRelease(s->seq, next | kSeqLive);
}

void CollectionWriter::wakeReaders() { wake_->changed(); }

void CollectionWriter::enqueue(uint32_t slot, const void* key) { enqueueInto(slot, key, m_.keySize); }

bool CollectionWriter::upsert(const void* record) {
   const uint32_t hash = m_.hashKey(record);
   uint32_t slot, bucket;
   if (findSlot(record, hash, slot, bucket)) {
      if (std::memcmp(m_.slotData(slot), record, m_.recordSize) == 0) return false;
      beginChange();
      keepBeforeRewrite(slot);
      writeSlot(slot, record);
      enqueue(slot, record);
      return true;
   }
   return insertNew(hash, bucket, [&](uint32_t s) { writeSlot(s, record); },
                    [&](uint32_t s) { enqueue(s, record); });
}

uint32_t CollectionWriter::takeSlot(uint32_t bucket) {
   if (free_.empty())
      throw FullError(std::string("collection '") + m_.header->name + "' is full (" +
                      std::to_string(m_.capacity) + " records)");
   // A writer never fills the index past half.
   if (bucket == UINT32_MAX)
      throw CorruptError(std::string("collection '") + m_.header->name +
                         "' is corrupt: its index has no empty bucket");
   const uint32_t slot = free_.front();
   free_.pop_front();
   // Published before the slot is written: a reader's walk reaches it.
   if (slot >= slotsUsed_) storeRelease(m_.header->slotsUsed, slotsUsed_ = slot + 1);
   return slot;
}

bool CollectionWriter::remove(const void* key) {
   const uint32_t hash = m_.hashKey(key);
   uint32_t slot, bucket;
   if (!findSlot(key, hash, slot, bucket)) return false;
   // Keep the key: it may point into the slot about to be rewritten.
   unsigned char k[kMaxKeySize];
   std::memcpy(k, key, m_.keySize);
   removeFound(slot, bucket, [&](uint32_t s) { enqueue(s, k); });
   return true;
}

void CollectionWriter::setBucket(uint32_t bucket, uint32_t slot, uint8_t tag) {
   storeRelaxed(m_.slotNumbers[bucket], static_cast<uint16_t>(slot));
   storeTag(m_.tags, bucket, tag, std::memory_order_release);
}

void CollectionWriter::removeEntry(uint32_t bucket) {
   // Odd while entries move: a reader that found nothing meanwhile looks again.
   const uint32_t seq = m_.header->indexSeq;
   storeRelaxed(m_.header->indexSeq, seq + 1);
   releaseFence();
   uint32_t hole = bucket;
   // At most once round the index: a repair may meet one with no empty bucket.
   uint32_t pos = (bucket + 1) & m_.bucketMask;
   for (uint32_t steps = 0; steps < m_.bucketMask && m_.tags[pos] != kTagEmpty;
        ++steps, pos = (pos + 1) & m_.bucketMask) {
      const uint32_t s = m_.slotNumbers[pos];
      if (s >= m_.capacity) continue; // garbage, met only in repair: left for it
      const uint32_t home = m_.hashKey(m_.slotData(s)) & m_.bucketMask;
      // The entry may fill the hole unless its home lies after the hole
      // (cyclically, up to the entry itself).
      if (((pos - home) & m_.bucketMask) < ((pos - hole) & m_.bucketMask)) continue;
      setBucket(hole, s, m_.tags[pos]);
      hole = pos;
   }
   storeTag(m_.tags, hole, kTagEmpty, std::memory_order_release);
   storeRelease(m_.header->indexSeq, seq + 2);
}

void CollectionWriter::removeAll() {
   std::vector<unsigned char> key(m_.keySize);
   for (uint32_t i = 0; i < m_.capacity && size_ > 0; ++i) {
      if (!(m_.slot(i)->seq & kSeqLive)) continue;
      std::memcpy(key.data(), m_.slotData(i), m_.keySize);
      remove(key.data());
   }
}

void CollectionWriter::notify(const void* key) {
   uint32_t slot, bucket;
   if (findSlot(key, m_.hashKey(key), slot, bucket)) {
      // The record, copied first: it is rewritten from itself.
      std::memcpy(scratch_.data(), m_.slotData(slot), m_.recordSize);
      beginChange();
      writeSlot(slot, scratch_.data());
   } else {
      slot = UINT32_MAX;
   }
   enqueue(slot, key);
}

bool CollectionWriter::indexedAt(uint32_t bucket) const {
   const uint32_t s = m_.slotNumbers[bucket];
   if (s >= m_.capacity || !(m_.slot(s)->seq & kSeqLive)) return false;
   const void* key = m_.slotData(s);
   const uint32_t hash = m_.hashKey(key);
   uint32_t slot, found;
   // Its key's tag, reachable from its home bucket, and not indexed before.
   return m_.tags[bucket] == bucketTag(hash) && findSlot(key, hash, slot, found) && found == bucket;
}

void CollectionWriter::repairIndex() {
   // Every store a writer makes keeps each live key reachable from its home
   // bucket, and readers rely on that even now, while they probe. So the
   // index a dead writer left is repaired with the same steps, never
   // rewritten: first drop the buckets that name no live record, name it a
   // second time (a move cut short) or hold garbage...
   for (uint32_t b = 0; b <= m_.bucketMask;) {
      if (m_.tags[b] != kTagEmpty && !indexedAt(b)) {
         removeEntry(b); // later entries may move into b: look at it again
         continue;
      }
      ++b;
   }
   // ...then index the live records no bucket names (an insert cut short),
   // and free those whose key another record already has (garbage).
   std::vector<uint8_t> named(m_.capacity, 0);
   for (uint32_t b = 0; b <= m_.bucketMask; ++b)
      if (m_.tags[b] != kTagEmpty) named[m_.slotNumbers[b]] = 1;
   for (uint32_t i = 0; i < m_.capacity; ++i) {
      if (named[i] || !(m_.slot(i)->seq & kSeqLive)) continue;
      const void* key = m_.slotData(i);
      const uint32_t hash = m_.hashKey(key);
      uint32_t slot, bucket;
      if (findSlot(key, hash, slot, bucket) || bucket == UINT32_MAX) {
         clearSlot(i);
         continue;
      }
      setBucket(bucket, i, bucketTag(hash));
   }
   // A removal cut short leaves indexSeq odd.
   if (m_.header->indexSeq & 1) storeRelease(m_.header->indexSeq, m_.header->indexSeq + 1);
}

} // namespace Pond
