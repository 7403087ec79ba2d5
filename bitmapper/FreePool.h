#pragma once
// The allocator's free indexes: a FIFO in a ring sized once, so that taking
// and returning an index never allocates. The ring keeps the
// position of the oldest entry and the count behind it.
#include "bitmapper/BitMapper.h"
#include "gant/Assert.h"

#include <cstdint>
#include <vector>

namespace BitMapper {

class FreePool {
 public:
   // Empties the pool and makes room for `capacity` entries.
   void reset(uint32_t capacity) {
      ring_.assign(capacity, BitIndex::null());
      head_ = size_ = 0;
   }
   uint32_t size() const noexcept { return size_; }
   bool empty() const noexcept { return size_ == 0; }

   void push(BitIndex i) {
      GANT_ASSERT(size_ < ring_.size());
      ring_[wrap(head_ + size_)] = i;
      ++size_;
   }
   // The oldest entry; the null index when the pool is empty.
   BitIndex pop() noexcept {
      if (size_ == 0) return BitIndex::null();
      const BitIndex i = ring_[head_];
      head_ = wrap(head_ + 1);
      --size_;
      return i;
   }
   // The n-th entry from the head (0: the next to be handed out).
   BitIndex at(uint32_t n) const { return ring_[wrap(head_ + n)]; }

 private:
   uint32_t wrap(uint32_t p) const noexcept { return p >= ring_.size() ? p - uint32_t(ring_.size()) : p; }

   std::vector<BitIndex> ring_;
   uint32_t head_ = 0;
   uint32_t size_ = 0;
};

} // namespace BitMapper
