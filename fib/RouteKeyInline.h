#pragma once
// Hot-path definitions of the route keys, inline: every hash table keyed by
// route key calls these.
#include <cstring>
#include <type_traits>

namespace Routing::Multicast::Fib {

static_assert(sizeof(IpGenRouteKey) == 40, "IpGenRouteKey is stored in shared memory");
static_assert(std::is_trivially_copyable_v<IpGenRouteKey>);
static_assert(std::has_unique_object_representations_v<IpGenRouteKey>,
              "hashing reads the key's bytes: no padding allowed");

// Five 64-bit words (family and length of s, s's address, the same for g)
// multiplied in pairs, in parallel, and folded: a short dependency chain,
// since every lookup starts here. The fold brings the products' well-mixed
// high bits down to the bits that pick the bucket. Equal keys have equal
// bytes, so this agrees with ==; it is the same on 32- and 64-bit builds.
inline uint32_t IpGenRouteKey::gantHash() const {
   // Word by word: copying the key to an array first costs a trip through
   // the stack.
   const auto word = [this](int i) {
      uint64_t w;
      std::memcpy(&w, reinterpret_cast<const unsigned char*>(this) + 8 * i, 8);
      return w;
   };
   uint64_t h = (word(0) ^ 0x9e3779b97f4a7c15ull) * (word(1) ^ 0xbf58476d1ce4e5b9ull) +
                (word(2) ^ 0x94d049bb133111ebull) * (word(3) ^ 0x2545f4914f6cdd1dull) +
                (word(4) ^ 0xd6e8feb86659fd93ull) * 0x9e3779b97f4a7c15ull;
   h ^= h >> 29;
   return static_cast<uint32_t>(h >> 32) ^ static_cast<uint32_t>(h);
}

// Both prefixes, byte for byte: the compiler turns a fixed-size memcmp
// tested for equality into a few wide compares without a branch per field.
inline bool IpGenRouteKey::operator==(const IpGenRouteKey& o) const noexcept {
   return std::memcmp(this, &o, sizeof(IpGenRouteKey)) == 0;
}

// By g, then by s.
inline std::strong_ordering IpGenRouteKey::operator<=>(const IpGenRouteKey& o) const noexcept {
   if (auto c = g_ <=> o.g_; c != 0) return c;
   return s_ <=> o.s_;
}

// Wang's integer mix of each prefix, combined, folded once.
inline uint32_t RouteKey::gantHash() const {
   uint32_t h = s_.hash() ^ g_.hash();
   return h ^ (h >> 16);
}

inline std::strong_ordering RouteKey::operator<=>(const RouteKey& o) const noexcept {
   if (auto c = g_ <=> o.g_; c != 0) return c;
   return s_ <=> o.s_;
}

} // namespace Routing::Multicast::Fib
