#pragma once
// Network byte order helpers for the address types: constexpr where the
// types need them at compile time, and word loads through memcpy so that
// unaligned bytes inside packed records are read safely and fast.
#include <bit>
#include <cstdint>
#include <cstring>

namespace Pakto {

constexpr uint32_t byteSwapOnLittleEndian(uint32_t v) noexcept {
   if constexpr (std::endian::native == std::endian::little) return __builtin_bswap32(v);
   else return v;
}

constexpr uint32_t networkToHost32(uint32_t v) noexcept { return byteSwapOnLittleEndian(v); }
constexpr uint32_t hostToNetwork32(uint32_t v) noexcept { return byteSwapOnLittleEndian(v); }

// The four bytes at p read as a big-endian number.
inline uint32_t loadBig32(const uint8_t* p) noexcept {
   uint32_t w;
   std::memcpy(&w, p, sizeof w);
   return networkToHost32(w);
}

// The eight bytes at p read as a big-endian number.
inline uint64_t loadBig64(const uint8_t* p) noexcept {
   uint64_t w;
   std::memcpy(&w, p, sizeof w);
   if constexpr (std::endian::native == std::endian::little) return __builtin_bswap64(w);
   else return w;
}

// The order of memcmp over 16 bytes, as two word compares: a libc memcmp
// call costs more than the compare at this size.
inline int compareBytes16(const uint8_t* a, const uint8_t* b) noexcept {
   const uint64_t a0 = loadBig64(a), b0 = loadBig64(b);
   if (a0 != b0) return a0 < b0 ? -1 : 1;
   const uint64_t a1 = loadBig64(a + 8), b1 = loadBig64(b + 8);
   return a1 < b1 ? -1 : a1 != b1;
}

} // namespace Pakto
