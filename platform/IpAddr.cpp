#include "platform/IpAddr.h"

#include "platform/TextScan.h"

namespace Pakto {

std::optional<IpAddr> IpAddr::fromString(std::string_view text) noexcept {
   uint32_t host = 0;
   for (int i = 0; i < 4; ++i) {
      std::size_t dot = i < 3 ? text.find('.') : text.size();
      if (dot == std::string_view::npos) return std::nullopt;
      uint32_t octet;
      if (!TextScan::decimal(text.substr(0, dot), 255, octet)) return std::nullopt;
      host = (host << 8) | octet;
      text.remove_prefix(i < 3 ? dot + 1 : dot);
   }
   return IpAddr::fromHost(host);
}

void IpAddr::gantText(std::string& out) const {
   uint32_t host = hostValue();
   for (int shift = 24; shift >= 0; shift -= 8) {
      TextScan::appendDecimal(out, (host >> shift) & 0xff);
      if (shift != 0) out += '.';
   }
}

IpAddr IpAddr::gantParse(Gant::TextReader& r) {
   std::size_t at = r.offset();
   std::string_view text = r.atom();
   if (auto a = fromString(text)) return *a;
   TextScan::fail(at, text, "an IPv4 address");
}

void Prefix::throwLenError() { throw Gant::RangeError("Prefix::len > 32 not allowed"); }

void Prefix::gantText(std::string& out) const {
   address_.gantText(out);
   out += '/';
   TextScan::appendDecimal(out, len_);
}

Prefix Prefix::gantParse(Gant::TextReader& r) {
   std::size_t at = r.offset();
   std::string_view text = r.atom();
   std::size_t slash = text.find('/');
   auto address = IpAddr::fromString(text.substr(0, slash));
   if (!address) TextScan::fail(at, text, "an IPv4 prefix");
   if (slash == std::string_view::npos) return Prefix(*address, maxLen);
   uint32_t len;
   if (!TextScan::decimal(text.substr(slash + 1), UINT32_MAX, len))
      TextScan::fail(at, text, "an IPv4 prefix length");
   return Prefix(*address, len);
}

void Prefix::gantLogWrite(Gant::LogWriter& w) const {
   address_.gantLogWrite(w);
   w.uint<uint32_t>(len_);
}

Prefix Prefix::gantLogRead(Gant::LogReader& r) {
   IpAddr address = IpAddr::gantLogRead(r);
   return Prefix(address, r.uint<uint32_t>());
}

std::ostream& operator<<(std::ostream& os, const IpAddr& v) { return os << Gant::toText(v); }
std::ostream& operator<<(std::ostream& os, const Prefix& v) { return os << Gant::toText(v); }

} // namespace Pakto
