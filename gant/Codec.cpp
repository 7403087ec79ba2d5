#include "gant/Codec.h"

#include <cmath>
#include <cstring>
#include <string>

namespace Gant {

void Codec<double>::text(std::string& out, double v) {
   char buf[32];
   auto res = std::to_chars(buf, buf + sizeof buf, v);
   std::string_view s(buf, res.ptr - buf);
   out += s;
   // Keep doubles recognisable as such ("0.0", not "0").
   if (std::isfinite(v) && s.find_first_of(".e") == std::string_view::npos) out += ".0";
}

double Codec<double>::parse(TextReader& r) {
   std::string_view a = r.atom();
   double v = 0;
   auto res = std::from_chars(a.data(), a.data() + a.size(), v);
   if (a.empty() || res.ec != std::errc() || res.ptr != a.data() + a.size())
      r.fail("a floating-point number");
   return v;
}

uint32_t Codec<std::string>::hash(const std::string& v) {
   // FNV-1a: stable across builds, unlike std::hash.
   uint32_t h = 2166136261u;
   for (unsigned char c : v) h = (h ^ c) * 16777619u;
   return h;
}

std::string Codec<std::string>::logRead(LogReader& r) {
   uint32_t n = r.uint<uint32_t>();
   std::string s;
   s.resize(0);
   // Read in bounded chunks so a hostile length cannot force a huge allocation.
   char buf[256];
   while (n > 0) {
      uint32_t chunk = n < sizeof buf ? n : static_cast<uint32_t>(sizeof buf);
      r.bytes(buf, chunk);
      s.append(buf, chunk);
      n -= chunk;
   }
   return s;
}

const char* EnumInfo::nameOf(uint32_t v) const noexcept {
   for (const auto& m : members)
      if (m.value == v) return m.name;
   return nullptr;
}

bool EnumInfo::valueOf(std::string_view name, uint32_t& v) const noexcept {
   for (const auto& m : members)
      if (name == m.name) {
         v = m.value;
         return true;
      }
   return false;
}

std::string enumText(const EnumInfo& info, uint32_t v) {
   const char* n = info.nameOf(v);
   return n ? std::string(n) : std::to_string(v);
}

} // namespace Gant
