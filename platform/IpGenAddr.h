#pragma once
// Generic (IPv4 or IPv6) address and prefix: a family byte and a 16-byte
// address area, IPv4 in its first four bytes in network order. Both sit in
// shared-memory route keys, so the layout is fixed, padding-free and the
// same on 32- and 64-bit builds; bytes a family does not use stay zero,
// which lets equality and the hash look at whole words.
#include "gant/Codec.h"
#include "platform/AddressFamily.h"
#include "platform/ByteOrder.h"
#include "platform/IpAddr.h"

#include <compare>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <span>
#include <string>
#include <type_traits>

namespace Pakto {

// Address bytes a family uses: 0 (none), 4 or 16.
constexpr std::size_t addressBytes(AddressFamily af) noexcept {
   return af == AddressFamily::ipv4 ? 4 : af == AddressFamily::ipv6 ? 16 : 0;
}

// Mixes an address area a word at a time with a small meta word (family,
// length). Unused area words are zero, so IPv4 needs only the first.
inline uint32_t hashAddressArea(AddressFamily af, uint32_t meta, const uint8_t* area) noexcept {
   uint32_t h = Gant::hashMix(loadBig32(area) ^ Gant::hashMix(meta));
   if (af == AddressFamily::ipv6) {
      uint32_t rest = Gant::hashMix(loadBig32(area + 4) ^
                                    Gant::hashMix(loadBig32(area + 8) ^
                                                  Gant::hashMix(loadBig32(area + 12))));
      h = Gant::hashCombine(h, rest);
   }
   return h;
}

class IpGenAddr {
 public:
   static constexpr const char* gantTypeName = "Pakto::IpGenAddr";
   static constexpr std::size_t areaBytes = 16;

   // No family, all zero.
   constexpr IpGenAddr() noexcept = default;
   explicit IpGenAddr(IpAddr v4) noexcept;
   // Asserts that bytes are exactly the family's width (4, 16, or 0 for no
   // family): a mismatch is a caller's bug, not bad input.
   IpGenAddr(AddressFamily af, std::span<const uint8_t> bytes);

   constexpr AddressFamily af() const noexcept { return af_; }
   IpAddr v4Addr() const;
   // The whole area; bytes beyond the family's width are zero.
   std::span<const uint8_t, areaBytes> bytes() const noexcept { return std::span(addr_); }
   // IPv4 224.0.0.0/4, IPv6 ff00::/8.
   bool isMulticast() const noexcept;

   // Every byte is part of the value (no padding, reserved bytes compared
   // too), so the bytes are compared whole rather than member by member.
   bool operator==(const IpGenAddr& o) const noexcept { return std::memcmp(this, &o, sizeof o) == 0; }
   // By family, then the address bytes (numeric order for either family).
   auto operator<=>(const IpGenAddr&) const noexcept = default;

   uint32_t hash() const noexcept {
      return hashAddressArea(af_, static_cast<uint32_t>(af_) << 8, addr_);
   }
   // Dotted quad, RFC 5952 IPv6, or "" without a family.
   void gantText(std::string& out) const;
   static IpGenAddr gantParse(Gant::TextReader& r);
   // af (1 byte), then the 16-byte area.
   void gantLogWrite(Gant::LogWriter& w) const;
   static IpGenAddr gantLogRead(Gant::LogReader& r);

 private:
   friend class IpGenPrefix;

   AddressFamily af_ = AddressFamily::ipunknown;
   uint8_t reserved_[3] = {0, 0, 0};
   uint8_t addr_[areaBytes] = {};
};

static_assert(sizeof(IpGenAddr) == 20);
static_assert(std::is_trivially_copyable_v<IpGenAddr>);
static_assert(std::has_unique_object_representations_v<IpGenAddr>);

class IpGenPrefix {
 public:
   static constexpr const char* gantTypeName = "Pakto::IpGenPrefix";

   static constexpr uint32_t maxLen(AddressFamily af) noexcept {
      return static_cast<uint32_t>(addressBytes(af) * 8);
   }

   // No family, length 0, all zero: the default (invalid) prefix.
   constexpr IpGenPrefix() noexcept = default;
   explicit IpGenPrefix(const Prefix& p) noexcept;
   // Host bits are kept as given. Throws Gant::RangeError
   // "IpGenPrefix::len > maxLen not allowed".
   IpGenPrefix(const IpGenAddr& address, uint32_t len);

   constexpr AddressFamily af() const noexcept { return af_; }
   IpGenAddr address() const noexcept;
   constexpr uint32_t len() const noexcept { return len_; }
   // IPv4 inside 224/4 with len >= 4; IPv6 inside ff00::/8 with len >= 8.
   bool isMulticast() const noexcept;
   // A full-length prefix (32 or 128); never true without a family.
   constexpr bool isHost() const noexcept {
      return af_ != AddressFamily::ipunknown && len_ == maxLen(af_);
   }
   // Narrows to IPv4; the family-less prefix narrows to 0.0.0.0/0.
   Prefix v4Prefix() const;
   bool isDefault() const noexcept { return *this == IpGenPrefix(); }
   // Whether bytes copied from outside hold a prefix: a known family, a
   // length within it, and nothing past the family's address bytes.
   bool gantValid() const noexcept {
      if (af_ > AddressFamily::ipv6 || len_ > maxLen(af_) || reserved_ != 0) return false;
      for (std::size_t i = addressBytes(af_); i < IpGenAddr::areaBytes; ++i)
         if (addr_[i]) return false;
      return true;
   }
   bool operator!() const noexcept { return isDefault(); }

   bool operator==(const IpGenPrefix&) const noexcept = default;
   // By family, then address bytes, then length. Written out because the
   // length sits before the address in the layout.
   std::strong_ordering operator<=>(const IpGenPrefix& o) const noexcept {
      if (auto c = af_ <=> o.af_; c != 0) return c;
      static_assert(sizeof addr_ == 16);
      if (int d = compareBytes16(addr_, o.addr_); d != 0) return d <=> 0;
      return len_ <=> o.len_;
   }

   // The core of the route-key hash: a few word mixes, no byte loops.
   uint32_t hash() const noexcept {
      return hashAddressArea(af_, static_cast<uint32_t>(af_) << 8 | len_, addr_);
   }
   // "10.0.0.0/8", "ff00::/8", or "" without a family.
   void gantText(std::string& out) const;
   // A bare address reads as a host prefix.
   static IpGenPrefix gantParse(Gant::TextReader& r);
   // af (1 byte), len (1 byte), then the 16-byte area.
   void gantLogWrite(Gant::LogWriter& w) const;
   static IpGenPrefix gantLogRead(Gant::LogReader& r);

 private:
   AddressFamily af_ = AddressFamily::ipunknown;
   uint8_t len_ = 0;
   uint16_t reserved_ = 0;
   uint8_t addr_[IpGenAddr::areaBytes] = {};
};

static_assert(sizeof(IpGenPrefix) == 20);
static_assert(std::is_trivially_copyable_v<IpGenPrefix>);
static_assert(std::has_unique_object_representations_v<IpGenPrefix>);

std::ostream& operator<<(std::ostream& os, const IpGenAddr& v);
std::ostream& operator<<(std::ostream& os, const IpGenPrefix& v);

} // namespace Pakto
