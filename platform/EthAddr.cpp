#include "platform/EthAddr.h"

#include "platform/TextScan.h"

#include <cstring>

namespace Pakto {

namespace {

int hexDigit(char c) noexcept {
   if (c >= '0' && c <= '9') return c - '0';
   if (c >= 'a' && c <= 'f') return c - 'a' + 10;
   if (c >= 'A' && c <= 'F') return c - 'A' + 10;
   return -1;
}

} // namespace

EthAddr::EthAddr(std::span<const uint8_t, octets> bytes) noexcept {
   std::memcpy(octet_, bytes.data(), octets);
}

std::optional<EthAddr> EthAddr::fromString(std::string_view text) noexcept {
   if (text.size() != 3 * octets - 1) return std::nullopt;
   EthAddr a;
   for (std::size_t i = 0; i < octets; ++i) {
      int hi = hexDigit(text[3 * i]);
      int lo = hexDigit(text[3 * i + 1]);
      if (hi < 0 || lo < 0 || (i + 1 < octets && text[3 * i + 2] != ':')) return std::nullopt;
      a.octet_[i] = static_cast<uint8_t>(hi << 4 | lo);
   }
   return a;
}

void EthAddr::gantText(std::string& out) const {
   static constexpr char kHex[] = "0123456789abcdef";
   for (std::size_t i = 0; i < octets; ++i) {
      if (i != 0) out += ':';
      out += kHex[octet_[i] >> 4];
      out += kHex[octet_[i] & 0xf];
   }
}

EthAddr EthAddr::gantParse(Gant::TextReader& r) {
   std::size_t at = r.offset();
   std::string_view text = r.atom();
   if (auto a = fromString(text)) return *a;
   TextScan::fail(at, text, "an Ethernet address");
}

EthAddr EthAddr::gantLogRead(Gant::LogReader& r) {
   EthAddr a;
   r.bytes(a.octet_, octets);
   return a;
}

std::ostream& operator<<(std::ostream& os, const EthAddr& v) { return os << Gant::toText(v); }

} // namespace Pakto
