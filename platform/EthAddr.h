#pragma once
// An Ethernet MAC address: six octets in wire order, trivially copyable for
// shared-memory records.
#include "gant/Assert.h"
#include "gant/Codec.h"
#include "platform/ByteOrder.h"

#include <compare>
#include <cstdint>
#include <optional>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace Pakto {

class EthAddr {
 public:
   static constexpr const char* gantTypeName = "Pakto::EthAddr";
   static constexpr std::size_t octets = 6;

   // 00:00:00:00:00:00
   constexpr EthAddr() noexcept = default;
   constexpr EthAddr(uint8_t o0, uint8_t o1, uint8_t o2, uint8_t o3, uint8_t o4,
                     uint8_t o5) noexcept
       : octet_{o0, o1, o2, o3, o4, o5} {}
   explicit EthAddr(std::span<const uint8_t, octets> bytes) noexcept;
   // "xx:xx:xx:xx:xx:xx" in either case, or nothing.
   static std::optional<EthAddr> fromString(std::string_view text) noexcept;

   constexpr uint8_t octet(std::size_t i) const {
      GANT_ASSERT(i < octets);
      return octet_[i];
   }
   std::span<const uint8_t, octets> bytes() const noexcept { return std::span(octet_); }
   // The group bit: the low bit of the first octet.
   constexpr bool isMulticast() const noexcept { return (octet_[0] & 1) != 0; }
   constexpr bool isZero() const noexcept { return *this == EthAddr(); }

   constexpr bool operator==(const EthAddr&) const noexcept = default;
   // Octet by octet.
   constexpr auto operator<=>(const EthAddr&) const noexcept = default;

   uint32_t hash() const noexcept {
      return Gant::hashMix(loadBig32(octet_) ^
                           Gant::hashMix(uint32_t{octet_[4]} << 8 | octet_[5]));
   }
   // Lower-case "01:00:5e:01:02:03".
   void gantText(std::string& out) const;
   static EthAddr gantParse(Gant::TextReader& r);
   // The six octets.
   void gantLogWrite(Gant::LogWriter& w) const { w.bytes(octet_, octets); }
   static EthAddr gantLogRead(Gant::LogReader& r);

 private:
   uint8_t octet_[octets] = {};
};

static_assert(sizeof(EthAddr) == 6);
static_assert(std::is_trivially_copyable_v<EthAddr>);
static_assert(std::has_unique_object_representations_v<EthAddr>);

std::ostream& operator<<(std::ostream& os, const EthAddr& v);

} // namespace Pakto
