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
   // A freed index may lie outside the range (held since before the range
   // moved), so the ring also has room for every row the table can hold.
   freePool_.reset(clampIndex(config_->bitMapSize()) + TableInfo::capacity());
   waiting_.reserve(TableInfo::capacity());
   repairTable();
   for (uint32_t i = minBitIndex_; i < clampIndex(maxBitIndex_); ++i)
      if (pondStatus_->bitIndexMap(BitIndex(i)).status == Pond::ReadStatus::absent) freePool_.push(BitIndex(i));
   pondStatus_->bitIndexMapForEach([&](const BitIndexMap& row) { status_->bitIndexIs(row.bitMapperKey(), row.key()); });
   // Waiting keys are known by the invalid index, so that their release is
   // understood after a restart too. Their order before it is not kept.
   pondStatus_->waitlistMapForEach([&](const WaitlistMap& row) {
      status_->bitIndexIs(row.key(), BitIndex::invalid());
      waiting_.push_back(row.key());
   });
   initialized_ = true;
   // Stopped between freeing an index and serving the waiting keys: serve them now.
   if (!freePool_.empty() && !waiting_.empty()) reviewKeyWaitlist();
}

// What a writer stopped between two of its writes can leave, and what no
// writer of this allocator leaves but a damaged table may hold, is put
// right before the pool is built from the table.
void BitMapperSm::repairTable() {
   std::vector<BitIndexMap> rows;
   pondStatus_->bitIndexMapForEach([&](const BitIndexMap& row) { rows.push_back(row); });
   std::sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) { return a.key() < b.key(); });
   std::vector<BitMapperKey> holders;
   for (const BitIndexMap& row : rows) {
      const bool twice = std::find(holders.begin(), holders.end(), row.bitMapperKey()) != holders.end();
      if (twice || !row.bitMapperKey() || row.refCount() == 0) {
         FLASHLOG(trace, 1, "handleInitialized", "(): dropping the row of index ", row.key().value(),
                  twice ? ", its key holds a lower index" : ", it has no holder");
         pondStatus_->bitIndexMapDel(row.key());
         continue;
      }
      holders.push_back(row.bitMapperKey());
   }
   std::sort(holders.begin(), holders.end());
   std::vector<WaitlistMap> waits;
   pondStatus_->waitlistMapForEach([&](const WaitlistMap& row) { waits.push_back(row); });
   for (const WaitlistMap& row : waits) {
      // Served just before the stop: its requests already count in the index's row.
      if (std::binary_search(holders.begin(), holders.end(), row.key()) || row.refCount() == 0 || !row.key())
         pondStatus_->waitlistMapDel(row.key());
   }
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
      const Pond::Found<WaitlistMap> waiting = pondStatus_->waitlistMap(bitMapperKey);
      // Every request that waited is served by this one index.
      pondStatus_->bitIndexMapIs(
          BitIndexMap(index, bitMapperKey, waiting ? waiting->refCount() : 1, index != BitIndex::invalid()));
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
