#pragma once
// The identity of an interface, as 64 bits that encode its name. The
// encoding is a pure function both ways (no registry, no global state), so
// any process reading a shared-memory record can name its interfaces.
//
// Layout, high word first (the order of comparison and of the hash):
//
//   high word  31..24  kind tag    1 Ethernet      2 Port-Channel  3 Vlan
//                                  4 Loopback      5 Management    6 Tunnel
//                                  7 Vxlan         8 Register      9 Cpu
//              23..0   first number            0..16777215
//   low word   31..22  second number + 1       0 = absent, number 0..1022
//              21..16  third number + 1        0 = absent, number 0..62
//              15..0   subinterface + 1        0 = absent, number 0..65534
//
// Names are the kind's prefix, then the numbers joined by '/', then '.' and
// the subinterface: "Ethernet3", "Ethernet3/1", "Ethernet1/2/3",
// "Ethernet3/1.100", "Port-Channel10", "Port-Channel10.5", "Vlan100",
// "Management1/1", "Register0", "Cpu". Ethernet takes one to three numbers,
// Management one or two, Cpu none, every other kind exactly one; only
// Ethernet and Port-Channel have subinterfaces. Numbers are plain decimal
// without leading zeros, so each id has exactly one name. The value 0 is the
// empty id, "unknown", whose name is "".
//
// Numbers are stored +1 so that "Ethernet3" and "Ethernet3/0" differ, and the
// layout keeps the natural order: Ethernet2 < Ethernet10 < Ethernet10/1.
#include "gant/Codec.h"

#include <compare>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

namespace Pakto {

class IntfId {
 public:
   static constexpr const char* gantTypeName = "Pakto::IntfId";

   // The empty id.
   constexpr IntfId() noexcept = default;
   // Throws Gant::ParseError for a name the encoding cannot hold; "" gives
   // the empty id.
   explicit IntfId(std::string_view name);
   // Throws Gant::RangeError "IntfId::value is not a valid interface encoding".
   static IntfId fromValue(uint64_t value);
   // Whether bytes copied from outside hold an id that decodes.
   bool gantValid() const noexcept;

   constexpr uint64_t value() const noexcept { return uint64_t{high_} << 32 | low_; }
   std::string name() const;
   constexpr bool operator!() const noexcept { return high_ == 0 && low_ == 0; }

   constexpr bool operator==(const IntfId&) const noexcept = default;
   constexpr auto operator<=>(const IntfId&) const noexcept = default;

   uint32_t hash() const noexcept { return Gant::hashMix(low_ ^ Gant::hashMix(high_)); }
   // The name, unquoted.
   void gantText(std::string& out) const;
   static IntfId gantParse(Gant::TextReader& r);
   // The 64-bit value.
   void gantLogWrite(Gant::LogWriter& w) const { w.uint<uint64_t>(value()); }
   static IntfId gantLogRead(Gant::LogReader& r) { return fromValue(r.uint<uint64_t>()); }

 private:
   constexpr IntfId(uint32_t high, uint32_t low) noexcept : high_(high), low_(low) {}

   // Two words rather than one uint64_t: a uint64_t aligns to 4 bytes on
   // 32-bit x86 and to 8 on 64-bit, which would shift the records holding it.
   uint32_t high_ = 0;
   uint32_t low_ = 0;
};

static_assert(sizeof(IntfId) == 8 && alignof(IntfId) == 4);
static_assert(std::is_trivially_copyable_v<IntfId>);
static_assert(std::has_unique_object_representations_v<IntfId>);

std::ostream& operator<<(std::ostream& os, const IntfId& v);

} // namespace Pakto
