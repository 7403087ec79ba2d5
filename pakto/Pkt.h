#pragma once
// A received or built packet: one buffer, sized once, holding the packet's
// bytes at [head, head + size). Packets come from a PktManager, which keeps
// them for reuse, so that a steady flow of packets allocates nothing.
#include "gant/Generated.h"
#include "gant/Ptr.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Pakto {

class Pkt : public Gant::PtrInterface {
 public:
   explicit Pkt(std::size_t maxSize) : buffer_(new uint8_t[maxSize]), maxSize_(maxSize) {}

   // The room of the buffer.
   std::size_t maxSize() const noexcept { return maxSize_; }
   uint8_t* data() noexcept { return buffer_.get() + head_; }
   const uint8_t* data() const noexcept { return buffer_.get() + head_; }
   std::size_t size() const noexcept { return size_; }

   // The packet becomes the first n bytes of the buffer (the receive area).
   void reserve(std::size_t n) noexcept {
      head_ = 0;
      size_ = n <= maxSize_ ? n : maxSize_;
   }
   // Keeps the first n bytes of the packet.
   void trimTail(std::size_t n) noexcept {
      if (n < size_) size_ = n;
   }
   // Drops the first n bytes of the packet.
   void trimHead(std::size_t n) noexcept {
      if (n > size_) n = size_;
      head_ += n;
      size_ -= n;
   }
   // The packet becomes a copy of n bytes (cut to the buffer's room).
   void assign(const uint8_t* bytes, std::size_t n) noexcept;

 private:
   std::unique_ptr<uint8_t[]> buffer_;
   std::size_t maxSize_;
   std::size_t head_ = 0;
   std::size_t size_ = 0;
};

// Hands out empty packets of pktSize() bytes of room. A packet given out is
// reused once every other holder has let it go; a change of size retires the
// packets of the old size as their holders let them go.
class PktManager {
 public:
   explicit PktManager(std::size_t pktSize = 1514) : pktSize_(pktSize) {}
   std::size_t pktSize() const noexcept { return pktSize_; }
   void pktSizeIs(std::size_t size);
   // An empty packet, or null when none can be had (no memory).
   Gant::Ptr<Pkt> newPkt() noexcept;
   // Packets kept, given out or free.
   std::size_t pooled() const noexcept { return pool_.size(); }

 private:
   std::size_t pktSize_;
   std::vector<Gant::Ptr<Pkt>> pool_;
   std::size_t next_ = 0; // where the search for a free packet starts
};

// The process's packet manager.
PktManager& globalPktManager() noexcept;

} // namespace Pakto

namespace Gant {
// A packet held by an entity shows in text by its length.
inline EntityRef entityName(const Pakto::Pkt* p) {
   if (!p) return {};
   return EntityRef{Name("Pkt[" + std::to_string(p->size()) + "]"), false};
}
} // namespace Gant
