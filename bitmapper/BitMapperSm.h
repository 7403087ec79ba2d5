#pragma once
// The bit index allocator. It answers the request counters of a Config:
// hands out indexes from a FIFO free pool, shares one index among repeated
// requests for a key when reference counting is on, parks keys that find
// the pool empty on a waiting list and serves them, oldest first, as
// indexes come free. It writes Status (key to index) and the shared table
// PondStatus (index to key, waiting list) together, and rebuilds itself from
// the table when it starts, so that indexes survive its restart.
#include "bitmapper/BitMapper.h"
#include "bitmapper/FreePool.h"
#include "gant/Ptr.h"

#include <vector>

namespace BitMapper {

class BitMapperSm : public Gant::PtrInterface {
 public:
   // Recovers from pondStatus (handleInitialized) with notifications off;
   // the factory turns them on.
   BitMapperSm(const Gant::Ptr<Config>& config, const Gant::Ptr<Status>& status,
               const Gant::Ptr<PondStatus>& pondStatus);
   ~BitMapperSm() override;

   Config* config() const noexcept { return config_.ptr(); }
   Status* status() const noexcept { return status_.ptr(); }
   PondStatus* pondStatus() const noexcept { return pondStatus_.ptr(); }
   uint32_t minBitIndex() const noexcept { return minBitIndex_; }
   uint32_t maxBitIndex() const noexcept { return maxBitIndex_; }
   bool initialized() const noexcept { return initialized_; }

   uint32_t bitIndexFreePools() const noexcept { return freePool_.size(); }
   // The n-th free index from the head (0: the next one handed out).
   BitIndex bitIndexFreePool(uint32_t n) const { return freePool_.at(n); }
   // The keys waiting for an index, oldest first.
   const std::vector<BitMapperKey>& waitingKeys() const noexcept { return waiting_; }

   void notificationsAre(bool on);

   void handleInitialized();
   void handleAllocRequestCount();
   void handleDeallocRequestCount();
   void handleBitMapMinIndex();
   BitIndex doAllocBitIndex(const BitMapperKey& bitMapperKey);
   bool reviewKeyWaitlist();

 private:
   struct ConfigReactor : Config::Reactor {
      ConfigReactor(BitMapperSm& sm, Config* c) : Config::Reactor(c), sm(sm) {}
      void onAllocRequestCount() override { sm.handleAllocRequestCount(); }
      void onDeallocRequestCount() override { sm.handleDeallocRequestCount(); }
      void onBitMapMinIndex() override { sm.handleBitMapMinIndex(); }
      BitMapperSm& sm;
   };

   BitIndex heldIndex(const BitMapperKey& key) const { return status_->bitIndex(key); }
   void fillPool();
   void waitlistChanged();
   void dropWaiting(const BitMapperKey& key);
   std::vector<BitIndexMap> heldRows();

   Gant::Ptr<Config> config_;
   Gant::Ptr<Status> status_;
   Gant::Ptr<PondStatus> pondStatus_;
   ConfigReactor configReactor_;
   FreePool freePool_;
   std::vector<BitMapperKey> waiting_;
   uint32_t minBitIndex_ = 0;
   uint32_t maxBitIndex_ = 0;
   bool initialized_ = false;
};

// Creates the allocator over its three entities and starts it.
Gant::Ptr<BitMapperSm> bitMapperSmFactory(const Gant::Ptr<Config>& config, const Gant::Ptr<Status>& status,
                                          const Gant::Ptr<PondStatus>& pondStatus);
inline Gant::Ptr<BitMapperSm> BitMapperSmIs(const Gant::Ptr<Config>& config, const Gant::Ptr<Status>& status,
                                            const Gant::Ptr<PondStatus>& pondStatus) {
   return bitMapperSmFactory(config, status, pondStatus);
}

} // namespace BitMapper
