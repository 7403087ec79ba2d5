#pragma once
// The family of a generic address or prefix. Written by hand with the same
// services a generated enumeration has, because the hand-written address
// types are built on it.
#include "gant/Codec.h"

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

namespace Pakto {

enum class AddressFamily : uint8_t {
   ipunknown = 0,
   ipv4 = 1,
   ipv6 = 2,
};

constexpr AddressFamily ipunknown() noexcept { return AddressFamily::ipunknown; }
constexpr AddressFamily ipv4() noexcept { return AddressFamily::ipv4; }
constexpr AddressFamily ipv6() noexcept { return AddressFamily::ipv6; }

const Gant::EnumInfo& gantEnumInfo(AddressFamily);

// Any number converts; only named values read back from the attribute log.
inline AddressFamily AddressFamilyInstance(unsigned v) { return static_cast<AddressFamily>(v); }
// Throws Gant::ParseError for a name that is not a member.
AddressFamily AddressFamilyInstance(std::string_view name);

inline std::string stringValue(AddressFamily v) {
   return Gant::enumText(gantEnumInfo(v), static_cast<uint32_t>(v));
}
inline std::ostream& operator<<(std::ostream& os, AddressFamily v) { return os << stringValue(v); }

// The range error for a family number read from outside ("... value 3 not allowed").
[[noreturn]] void throwBadAddressFamily(unsigned v);

} // namespace Pakto
