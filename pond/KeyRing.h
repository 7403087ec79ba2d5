#pragma once
// A reader's keys delivered while it was behind the writer, each with the
// queue position the cursor must pass before the key may be forgotten. A
// FIFO in one block that grows by doubling and is then reused: no
// allocation per change once warm.
#include <cstdint>
#include <cstring>
#include <vector>

namespace Pond {

class KeyRing {
 public:
   explicit KeyRing(uint32_t keySize = 0) : keySize_(keySize) {}

   bool empty() const noexcept { return count_ == 0; }
   std::size_t size() const noexcept { return count_; }
   void clear() noexcept { head_ = count_ = 0; }

   void push(uint32_t until, const void* key) {
      if (count_ == until_.size()) grow();
      const std::size_t i = (head_ + count_) % until_.size();
      until_[i] = until;
      std::memcpy(&keys_[i * keySize_], key, keySize_);
      ++count_;
   }
   uint32_t frontUntil() const noexcept { return until_[head_]; }
   const unsigned char* frontKey() const noexcept { return &keys_[head_ * keySize_]; }
   void pop() noexcept {
      head_ = (head_ + 1) % until_.size();
      --count_;
   }
   // Forgets every key whose position the cursor has reached (positions
   // wrap: compared as serial numbers).
   void dropReached(uint32_t cursor) noexcept {
      while (count_ && static_cast<int32_t>(cursor - frontUntil()) >= 0) pop();
   }

 private:
   void grow() {
      const std::size_t n = until_.empty() ? 64 : until_.size() * 2;
      std::vector<uint32_t> until(n);
      std::vector<unsigned char> keys(n * keySize_);
      for (std::size_t k = 0; k < count_; ++k) {
         const std::size_t i = (head_ + k) % until_.size();
         until[k] = until_[i];
         std::memcpy(&keys[k * keySize_], &keys_[i * keySize_], keySize_);
      }
      until_.swap(until);
      keys_.swap(keys);
      head_ = 0;
   }

   uint32_t keySize_;
   std::vector<uint32_t> until_;
   std::vector<unsigned char> keys_;
   std::size_t head_ = 0, count_ = 0;
};

} // namespace Pond
