#include "pakto/Pkt.h"

#include <cstring>
#include <new>

namespace Pakto {

void Pkt::assign(const uint8_t* bytes, std::size_t n) noexcept {
   reserve(n);
   if (size_) std::memcpy(buffer_.get(), bytes, size_);
}

void PktManager::pktSizeIs(std::size_t size) {
   if (size == pktSize_) return;
   pktSize_ = size;
   // Packets of the old size still held elsewhere stay valid for their
   // holders; the pool forgets them.
   pool_.clear();
   next_ = 0;
}

Gant::Ptr<Pkt> PktManager::newPkt() noexcept {
   // A pooled packet is free when the pool holds its only reference.
   for (std::size_t i = 0; i < pool_.size(); ++i) {
      Gant::Ptr<Pkt>& p = pool_[(next_ + i) % pool_.size()];
      if (p->refCount() == 1) {
         next_ = (next_ + i + 1) % pool_.size();
         p->reserve(0);
         return p;
      }
   }
   try {
      pool_.push_back(Gant::Ptr<Pkt>(new Pkt(pktSize_)));
   } catch (const std::bad_alloc&) {
      return nullptr;
   }
   return pool_.back();
}

PktManager& globalPktManager() noexcept {
   static PktManager manager;
   return manager;
}

} // namespace Pakto
