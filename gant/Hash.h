#pragma once
// 32-bit hashing, identical on 32- and 64-bit builds so that hashes stored or
// used to place records in shared memory agree between processes.
#include <cstdint>
#include <cstddef>

namespace Gant {

// Thomas Wang's 32-bit integer mix.
constexpr uint32_t hashMix(uint32_t x) noexcept {
   x = (x << 15) - x - 1;
   x ^= x >> 12;
   x *= 5;
   x ^= x >> 4;
   x *= 2057;
   return x;
}

constexpr uint32_t hashCombine(uint32_t seed, uint32_t h) noexcept {
   return seed ^ (h + 0x9e3779b9u + (seed << 6) + (seed >> 2));
}

constexpr uint32_t hashU64(uint64_t v) noexcept {
   return hashMix(static_cast<uint32_t>(v) ^ hashMix(static_cast<uint32_t>(v >> 32)));
}

} // namespace Gant
