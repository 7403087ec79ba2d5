#pragma once
// Byte layouts of the kernel's upcalls that the parsers read. Offsets are
// the kernel's; everything is read with memcpy from unaligned buffers.
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Routing::Multicast::Notify::Upcall {

// The raw IPv4 record laid over an IPv4 header.
inline constexpr std::size_t igmpmsgBytes = 20;
inline constexpr std::size_t igmpmsgType = 8, igmpmsgMbz = 9, igmpmsgVif = 10, igmpmsgSrc = 12,
                             igmpmsgDst = 16;
// The IPv6 record at the start of an upcall on the mroute socket.
inline constexpr std::size_t mrt6msgBytes = 40;
inline constexpr std::size_t mrt6msgMbz = 0, mrt6msgType = 1, mrt6msgMif = 2, mrt6msgSrc = 8,
                             mrt6msgDst = 24;

// Netlink cache reports.
inline constexpr uint16_t rtmNewCacheReport = 96;
inline constexpr uint8_t rtnlFamilyIpmr = 128, rtnlFamilyIp6mr = 129;
inline constexpr std::size_t nlmsghdrBytes = 16, rtgenmsgBytes = 4;
// Attributes as this kernel numbers them for IPv6; IPv4 adds 7.
enum Attr : uint16_t { unnamed = 0, msgType = 1, mifId = 2, srcAddr = 3, dstAddr = 4, pkt = 5, intfId = 6 };
inline constexpr uint16_t ipv4AttrOffset = 7;

constexpr std::size_t align4(std::size_t n) { return (n + 3) & ~std::size_t(3); }

// A T read from bytes at any alignment.
template <class T>
T load(const uint8_t* p) {
   T v;
   std::memcpy(&v, p, sizeof v);
   return v;
}

} // namespace Routing::Multicast::Notify::Upcall
