#include "platform/IpGenAddr.h"

#include "gant/Assert.h"
#include "platform/TextScan.h"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace Pakto {

namespace {

bool isMulticastArea(AddressFamily af, const uint8_t* area) noexcept {
   if (af == AddressFamily::ipv4) return (area[0] & 0xf0) == 0xe0;
   if (af == AddressFamily::ipv6) return area[0] == 0xff;
   return false;
}

void appendArea(std::string& out, AddressFamily af, const uint8_t* area) {
   if (af == AddressFamily::ipv4) {
      IpAddr::fromHost(loadBig32(area)).gantText(out);
   } else if (af == AddressFamily::ipv6) {
      char buf[INET6_ADDRSTRLEN];
      // Cannot fail: the family is right and the buffer is the documented size.
      out += ::inet_ntop(AF_INET6, area, buf, sizeof buf);
   }
}

// Reads a non-empty address text; an IPv6 one is recognised by its colon.
bool scanAddress(std::string_view text, IpGenAddr& out) {
   if (text.find(':') == std::string_view::npos) {
      auto v4 = IpAddr::fromString(text);
      if (!v4) return false;
      out = IpGenAddr(*v4);
      return true;
   }
   // inet_pton wants a C string: an embedded NUL would cut the text short.
   char buf[INET6_ADDRSTRLEN];
   if (text.size() >= sizeof buf || text.find('\0') != std::string_view::npos) return false;
   text.copy(buf, text.size());
   buf[text.size()] = '\0';
   uint8_t bytes[16];
   if (::inet_pton(AF_INET6, buf, bytes) != 1) return false;
   out = IpGenAddr(AddressFamily::ipv6, bytes);
   return true;
}

// The family byte and area of a log, checked: a known family and nothing
// beyond its width, so that equal values always have equal bytes.
AddressFamily readFamily(Gant::LogReader& r) {
   uint8_t af = r.uint<uint8_t>();
   if (af > static_cast<uint8_t>(AddressFamily::ipv6)) throwBadAddressFamily(af);
   return static_cast<AddressFamily>(af);
}

void readArea(Gant::LogReader& r, AddressFamily af, uint8_t* area, const char* typeName) {
   r.bytes(area, IpGenAddr::areaBytes);
   for (std::size_t i = addressBytes(af); i < IpGenAddr::areaBytes; ++i)
      if (area[i] != 0)
         throw Gant::ParseError(std::string("attribute log: ") + typeName +
                                " address bytes beyond its family not zero");
}

} // namespace

IpGenAddr::IpGenAddr(IpAddr v4) noexcept : af_(AddressFamily::ipv4) {
   uint32_t net = v4.value();
   std::memcpy(addr_, &net, sizeof net);
}

IpGenAddr::IpGenAddr(AddressFamily af, std::span<const uint8_t> bytes) : af_(af) {
   GANT_ASSERT(af <= AddressFamily::ipv6 && bytes.size() == addressBytes(af));
   if (!bytes.empty()) std::memcpy(addr_, bytes.data(), bytes.size());
}

IpAddr IpGenAddr::v4Addr() const {
   GANT_ASSERT(af() == ipv4());
   uint32_t net;
   std::memcpy(&net, addr_, sizeof net);
   return IpAddr(net);
}

bool IpGenAddr::isMulticast() const noexcept { return isMulticastArea(af_, addr_); }

void IpGenAddr::gantText(std::string& out) const { appendArea(out, af_, addr_); }

IpGenAddr IpGenAddr::gantParse(Gant::TextReader& r) {
   std::size_t at = r.offset();
   std::string_view text = r.atom();
   IpGenAddr a;
   if (!text.empty() && !scanAddress(text, a)) TextScan::fail(at, text, "an IP address");
   return a;
}

void IpGenAddr::gantLogWrite(Gant::LogWriter& w) const {
   w.uint<uint8_t>(static_cast<uint8_t>(af_));
   w.bytes(addr_, sizeof addr_);
}

IpGenAddr IpGenAddr::gantLogRead(Gant::LogReader& r) {
   IpGenAddr a;
   a.af_ = readFamily(r);
   readArea(r, a.af_, a.addr_, "IpGenAddr");
   return a;
}

IpGenPrefix::IpGenPrefix(const Prefix& p) noexcept
    : af_(AddressFamily::ipv4), len_(static_cast<uint8_t>(p.len())) {
   uint32_t net = p.address().value();
   std::memcpy(addr_, &net, sizeof net);
}

IpGenPrefix::IpGenPrefix(const IpGenAddr& address, uint32_t len) : af_(address.af_) {
   if (len > maxLen(af_)) throw Gant::RangeError("IpGenPrefix::len > maxLen not allowed");
   len_ = static_cast<uint8_t>(len);
   std::memcpy(addr_, address.addr_, sizeof addr_);
}

IpGenAddr IpGenPrefix::address() const noexcept {
   IpGenAddr a;
   a.af_ = af_;
   std::memcpy(a.addr_, addr_, sizeof addr_);
   return a;
}

bool IpGenPrefix::isMulticast() const noexcept {
   uint32_t minLen = af_ == AddressFamily::ipv4 ? 4 : 8;
   return isMulticastArea(af_, addr_) && len_ >= minLen;
}

Prefix IpGenPrefix::v4Prefix() const {
   GANT_ASSERT(af() == ipv4() || af() == ipunknown());
   uint32_t net;
   std::memcpy(&net, addr_, sizeof net);
   return Prefix(IpAddr(net), len_);
}

void IpGenPrefix::gantText(std::string& out) const {
   if (af_ == AddressFamily::ipunknown) return;
   appendArea(out, af_, addr_);
   out += '/';
   TextScan::appendDecimal(out, len_);
}

IpGenPrefix IpGenPrefix::gantParse(Gant::TextReader& r) {
   std::size_t at = r.offset();
   std::string_view text = r.atom();
   if (text.empty()) return IpGenPrefix();
   std::size_t slash = text.find('/');
   IpGenAddr address;
   if (!scanAddress(text.substr(0, slash), address)) TextScan::fail(at, text, "an IP prefix");
   if (slash == std::string_view::npos) return IpGenPrefix(address, maxLen(address.af()));
   uint32_t len;
   if (!TextScan::decimal(text.substr(slash + 1), UINT32_MAX, len))
      TextScan::fail(at, text, "an IP prefix length");
   return IpGenPrefix(address, len);
}

void IpGenPrefix::gantLogWrite(Gant::LogWriter& w) const {
   w.uint<uint8_t>(static_cast<uint8_t>(af_));
   w.uint<uint8_t>(len_);
   w.bytes(addr_, sizeof addr_);
}

IpGenPrefix IpGenPrefix::gantLogRead(Gant::LogReader& r) {
   IpGenPrefix p;
   p.af_ = readFamily(r);
   uint8_t len = r.uint<uint8_t>();
   if (len > maxLen(p.af_)) throw Gant::RangeError("IpGenPrefix::len > maxLen not allowed");
   p.len_ = len;
   readArea(r, p.af_, p.addr_, "IpGenPrefix");
   return p;
}

std::ostream& operator<<(std::ostream& os, const IpGenAddr& v) { return os << Gant::toText(v); }
std::ostream& operator<<(std::ostream& os, const IpGenPrefix& v) { return os << Gant::toText(v); }

} // namespace Pakto
