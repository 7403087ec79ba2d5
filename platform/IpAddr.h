#pragma once
// IPv4 address and prefix. Both live inside shared-memory records, so they
// are trivially copyable with a fixed layout and no padding; equality and
// hash may then look at every byte.
#include "gant/Codec.h"
#include "platform/ByteOrder.h"

#include <compare>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

namespace Pakto {

// An IPv4 address, held in network byte order as it appears on the wire.
class IpAddr {
 public:
   static constexpr const char* gantTypeName = "Pakto::IpAddr";

   constexpr IpAddr() noexcept = default;
   constexpr explicit IpAddr(uint32_t networkOrder) noexcept : value_(networkOrder) {}
   static constexpr IpAddr fromHost(uint32_t hostOrder) noexcept {
      return IpAddr(hostToNetwork32(hostOrder));
   }
   // The dotted quad "a.b.c.d", or nothing unless the text is exactly that.
   static std::optional<IpAddr> fromString(std::string_view text) noexcept;

   constexpr uint32_t value() const noexcept { return value_; }
   constexpr uint32_t hostValue() const noexcept { return networkToHost32(value_); }
   // 224.0.0.0/4
   constexpr bool isMulticast() const noexcept { return (hostValue() >> 28) == 0xe; }

   constexpr bool operator==(const IpAddr&) const noexcept = default;
   // Numeric order: the network-order word compared as it is would not give
   // it on a little-endian host.
   constexpr std::strong_ordering operator<=>(const IpAddr& o) const noexcept {
      return hostValue() <=> o.hostValue();
   }

   uint32_t hash() const noexcept { return Gant::hashMix(hostValue()); }
   void gantText(std::string& out) const;
   static IpAddr gantParse(Gant::TextReader& r);
   void gantLogWrite(Gant::LogWriter& w) const { w.uint<uint32_t>(hostValue()); }
   static IpAddr gantLogRead(Gant::LogReader& r) { return fromHost(r.uint<uint32_t>()); }

 private:
   uint32_t value_ = 0;
};

static_assert(sizeof(IpAddr) == 4);
static_assert(std::is_trivially_copyable_v<IpAddr>);
static_assert(std::has_unique_object_representations_v<IpAddr>);

// An IPv4 prefix. Host bits are kept as given, not masked: encoded route
// keys store data in them.
class Prefix {
 public:
   static constexpr const char* gantTypeName = "Pakto::Prefix";
   static constexpr uint32_t maxLen = 32;

   constexpr Prefix() noexcept = default;
   // Throws Gant::RangeError "Prefix::len > 32 not allowed".
   constexpr Prefix(IpAddr address, uint32_t len) : address_(address), len_(checkLen(len)) {}

   constexpr IpAddr address() const noexcept { return address_; }
   constexpr uint32_t len() const noexcept { return len_; }
   // A multicast address and a length that keeps the prefix inside 224/4.
   constexpr bool isMulticast() const noexcept { return address_.isMulticast() && len_ >= 4; }
   constexpr bool isHost() const noexcept { return len_ == maxLen; }
   constexpr bool gantValid() const noexcept { return len_ <= maxLen; }

   constexpr bool operator==(const Prefix&) const noexcept = default;
   // By address (numerically), then length.
   constexpr auto operator<=>(const Prefix&) const noexcept = default;

   // The mix of (host-order address XOR length) that IPv4 route keys use.
   uint32_t hash() const noexcept { return Gant::hashMix(address_.hostValue() ^ len_); }
   void gantText(std::string& out) const;
   // "a.b.c.d/len"; a bare address reads as a host prefix.
   static Prefix gantParse(Gant::TextReader& r);
   void gantLogWrite(Gant::LogWriter& w) const;
   static Prefix gantLogRead(Gant::LogReader& r);

 private:
   static constexpr uint32_t checkLen(uint32_t len) {
      if (len > maxLen) throwLenError();
      return len;
   }
   [[noreturn]] static void throwLenError();

   IpAddr address_;
   uint32_t len_ = 0;
};

static_assert(sizeof(Prefix) == 8);
static_assert(std::is_trivially_copyable_v<Prefix>);
static_assert(std::has_unique_object_representations_v<Prefix>);

std::ostream& operator<<(std::ostream& os, const IpAddr& v);
std::ostream& operator<<(std::ostream& os, const Prefix& v);

} // namespace Pakto
