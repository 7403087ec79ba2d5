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

} // namespace Pakto
