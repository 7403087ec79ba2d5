#include "bitmapper/BitMapperSm.h"

#include "flashlog/Flashlog.h"
#include "gant/Assert.h"

#include <algorithm>

namespace BitMapper {

namespace {
Flashlog::Handle& trace = Flashlog::handle("Mroute::BitMapper");

// Indexes are 16 bits wide: a range reaching past them ends at the last one.
uint32_t clampIndex(uint32_t i) { return std::min<uint32_t>(i, 0x10000); }
} // namespace

BitMapperSm::BitMapperSm(const Gant::Ptr<Config>& config, const Gant::Ptr<Status>& status,
                         const Gant::Ptr<PondStatus>& pondStatus)
    : config_(config), status_(status), pondStatus_(pondStatus), configReactor_(*this, config.ptr()) {
   configReactor_.activeIs(false);
   handleInitialized();
}

BitMapperSm::~BitMapperSm() = default;

void BitMapperSm::notificationsAre(bool on) { configReactor_.activeIs(on); }

void BitMapperSm::handleInitialized() {
   FLASHLOG(trace, 9, "void BitMapper::BitMapperSm::handleInitialized()");
   FLASHLOG(trace, 8, "handleInitialized", "(): Initializing ", pondStatus_->name());
   GANT_ASSERT(config()->bitMapSize());
   minBitIndex_ = config_->bitMapMinIndex();
   maxBitIndex_ = minBitIndex_ + config_->bitMapSize();
   const uint32_t end = clampIndex(maxBitIndex_);
   // A freed index may lie outside the range (held since before the range
   // moved), so the ring also has room for every row the table can hold.
   freePool_.reset(clampIndex(config_->bitMapSize()) + TableInfo::capacity());
   waiting_.reserve(TableInfo::capacity());
   // One read of the rows serves the repair, Status and the pool.
   const std::vector<BitIndexMap> rows = heldRows();
   std::vector<bool> held(end > minBitIndex_ ? end - minBitIndex_ : 0);
   for (const BitIndexMap& row : rows)
      if (row.key().value() >= minBitIndex_ && row.key().value() < end) held[row.key().value() - minBitIndex_] = true;
   for (uint32_t i = minBitIndex_; i < end; ++i)
      if (!held[i - minBitIndex_]) freePool_.push(BitIndex(i));
   // Waiting keys are known by the invalid index, so that their release is
   // understood after a restart too. Their order before it is not kept.
   std::vector<WaitlistMap> waits;
   pondStatus_->waitlistMapForEach([&](const WaitlistMap& row) { waits.push_back(row); });
   for (const WaitlistMap& row : waits) {
      // Served just before the stop: its requests already count in the index's row.
      if (status_->bitIndexHas(row.key()) || row.refCount() == 0 || !row.key()) {
         pondStatus_->waitlistMapDel(row.key());
         continue;
      }
      status_->bitIndexIs(row.key(), BitIndex::invalid());
      waiting_.push_back(row.key());
   }
   initialized_ = true;
   // Stopped between freeing an index and serving the waiting keys: serve them now.
   if (!freePool_.empty() && !waiting_.empty()) reviewKeyWaitlist();
}

// The index rows, each key at one index, entered into Status. What no
// writer of this allocator leaves but a damaged table may hold is dropped
// from the table: a row without a holder, and all but the lowest index of a
// key named twice.
std::vector<BitIndexMap> BitMapperSm::heldRows() {
   std::vector<BitIndexMap> rows;
   rows.reserve(pondStatus_->bitIndexMapSize());
   pondStatus_->bitIndexMapForEach([&](const BitIndexMap& row) { rows.push_back(row); });
   std::vector<BitIndexMap> kept;
   kept.reserve(rows.size());
   auto drop = [&](BitIndex index, const char* why) {
      FLASHLOG(trace, 1, "handleInitialized", "(): dropping the row of index ", index.value(), why);
      pondStatus_->bitIndexMapDel(index);
   };
   for (const BitIndexMap& row : rows) {
      if (!row.bitMapperKey() || row.refCount() == 0) {
         drop(row.key(), ", it has no holder");
         continue;
      }
      status_->bitIndexIs(row.bitMapperKey(), row.key());
      kept.push_back(row);
   }
   if (status_->bitIndexSize() == kept.size()) return kept; // no key twice: the rule
   std::sort(kept.begin(), kept.end(), [](const BitIndexMap& a, const BitIndexMap& b) { return a.key() < b.key(); });
   status_->bitIndexDelAll();
   std::erase_if(kept, [&](const BitIndexMap& row) {
      if (!status_->bitIndex(row.bitMapperKey()).isNull()) {
         drop(row.key(), ", its key holds a lower index");
         return true;
      }
      status_->bitIndexIs(row.bitMapperKey(), row.key());
      return false;
   });
   return kept;
}

BitIndex BitMapperSm::doAllocBitIndex(const BitMapperKey& bitMapperKey) {
   GANT_ASSERT(bitMapperKey != BitMapperKey());
   const BitIndex current = heldIndex(bitMapperKey);
   if (current.value() < maxBitIndex_) {
      BitIndexMap bitIndexMap = pondStatus_->lookupBitIndex(current);
      GANT_ASSERT(bitIndexMap != BitIndexMap());
      GANT_ASSERT(bitIndexMap.bitMapperKey() == bitMapperKey);
      bitIndexMap.refCountIs(bitIndexMap.refCount() + 1);
      bitIndexMap.isNewMappingIs(false);
      pondStatus_->bitIndexMapIs(bitIndexMap);
      return current;
   }
   if (!freePool_.empty()) {
      const BitIndex index = freePool_.pop();
      // Every request that waited is served by this one index.
      uint32_t holders = 1;
      if (!waiting_.empty())
         if (const Pond::Found<WaitlistMap> waiting = pondStatus_->waitlistMap(bitMapperKey)) holders = waiting->refCount();
      pondStatus_->bitIndexMapIs(BitIndexMap(index, bitMapperKey, holders, index != BitIndex::invalid()));
      status_->bitIndexIs(bitMapperKey, index);
      return index;
   }
   status_->bitIndexIs(bitMapperKey, BitIndex::invalid());
   return BitIndex::invalid();
}

void BitMapperSm::handleAllocRequestCount() {
   FLASHLOG(trace, 9, "void BitMapper::BitMapperSm::handleAllocRequestCount()");
   const BitMapperKey key = config_->allocRequestKey();
   const BitIndex index = doAllocBitIndex(key);
   FLASHLOG(trace, 8, "handleAllocRequestCount", "Allocate index ", index.value());
   if (index.isValid()) return;
   const Pond::Found<WaitlistMap> found = pondStatus_->waitlistMap(key);
   WaitlistMap row = found ? *found : WaitlistMap(key);
   row.refCountIs(row.refCount() + 1);
   pondStatus_->waitlistMapIs(row);
   if (!found) waiting_.push_back(key);
   waitlistChanged();
}

bool BitMapperSm::reviewKeyWaitlist() {
   FLASHLOG(trace, 9, "bool BitMapper::BitMapperSm::reviewKeyWaitlist()");
   while (!waiting_.empty()) {
      const BitMapperKey key = waiting_.front();
      const BitIndex bitIndex = heldIndex(key);
      GANT_ASSERT_TEXT(bitIndex.value() >= maxBitIndex_, "bitIndex >= BitIndex( maxBitIndex() )");
      if (!doAllocBitIndex(key).isValid()) return false;
      pondStatus_->waitlistMapDel(key);
      waiting_.erase(waiting_.begin());
      waitlistChanged();
   }
   return true;
}

void BitMapperSm::handleDeallocRequestCount() {
   FLASHLOG(trace, 9, "void BitMapper::BitMapperSm::handleDeallocRequestCount()");
   const BitMapperKey key = config_->deallocRequestKey();
   GANT_ASSERT(key != BitMapperKey());
   const BitIndex bitIndex = heldIndex(key);
   GANT_ASSERT(bitIndex != BitIndex::null());
   if (bitIndex.isValid()) {
      BitIndexMap bitIndexMap = pondStatus_->lookupBitIndex(bitIndex);
      GANT_ASSERT(bitIndexMap != BitIndexMap());
      if (config_->enableRefCount() && bitIndexMap.refCount() > 1) {
         bitIndexMap.refCountIs(bitIndexMap.refCount() - 1);
         pondStatus_->bitIndexMapIs(bitIndexMap);
         return;
      }
      status_->bitIndexDel(key);
      pondStatus_->bitIndexMapDel(bitIndex);
      freePool_.push(bitIndex);
      reviewKeyWaitlist();
      return;
   }
   const Pond::Found<WaitlistMap> found = pondStatus_->waitlistMap(key);
   WaitlistMap wm = found ? *found : WaitlistMap();
   GANT_ASSERT(wm != WaitlistMap());
   if (wm.refCount() <= 1) {
      status_->bitIndexDel(key);
      pondStatus_->waitlistMapDel(key);
      dropWaiting(key);
   } else {
      wm.refCountIs(wm.refCount() - 1);
      pondStatus_->waitlistMapIs(wm);
   }
   waitlistChanged();
}

void BitMapperSm::handleBitMapMinIndex() {
   FLASHLOG(trace, 9, "handleBitMapMinIndex", "()");
   FLASHLOG(trace, 8, "handleBitMapMinIndex", "(): FreePool size: ", bitIndexFreePools());
   GANT_ASSERT(bitIndexFreePools() == config()->bitMapSize());
   minBitIndex_ = config_->bitMapMinIndex();
   maxBitIndex_ = minBitIndex_ + config_->bitMapSize();
   freePool_.reset(clampIndex(config_->bitMapSize()) + TableInfo::capacity());
   for (uint32_t i = minBitIndex_; i < clampIndex(maxBitIndex_); ++i) freePool_.push(BitIndex(i));
}

void BitMapperSm::waitlistChanged() { status_->waitlistChangeCountInc(); }

void BitMapperSm::dropWaiting(const BitMapperKey& key) {
   auto it = std::find(waiting_.begin(), waiting_.end(), key);
   if (it != waiting_.end()) waiting_.erase(it);
}

Gant::Ptr<BitMapperSm> bitMapperSmFactory(const Gant::Ptr<Config>& config, const Gant::Ptr<Status>& status,
                                          const Gant::Ptr<PondStatus>& pondStatus) {
   Gant::Ptr<BitMapperSm> sm = Gant::make<BitMapperSm>(config, status, pondStatus);
   sm->notificationsAre(true);
   return sm;
}

} // namespace BitMapper
