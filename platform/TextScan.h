#pragma once
// Strict scanning of the numbers inside address and interface texts. Strict
// because every text form must read back to exactly one value: no signs, no
// blanks, no leading zeros that would give one value two spellings.
#include <cstdint>
#include <string>
#include <string_view>

namespace Pakto::TextScan {

// One or more decimal digits, no leading zero unless the number is 0, at most max.
constexpr bool decimal(std::string_view s, uint32_t max, uint32_t& out) noexcept {
   if (s.empty() || s.size() > 10 || (s.size() > 1 && s[0] == '0')) return false;
   uint64_t v = 0;
   for (char c : s) {
      if (c < '0' || c > '9') return false;
      v = v * 10 + static_cast<uint64_t>(c - '0');
   }
   if (v > max) return false;
   out = static_cast<uint32_t>(v);
   return true;
}

// A ParseError in the reader's own format, pointing at the start of the atom
// that did not scan (the reader has already moved past it).
[[noreturn]] void fail(std::size_t offset, std::string_view atom, std::string_view what);

inline void appendDecimal(std::string& out, uint32_t v) {
   char buf[10];
   int n = 0;
   do {
      buf[n++] = static_cast<char>('0' + v % 10);
      v /= 10;
   } while (v != 0);
   while (n > 0) out += buf[--n];
}

} // namespace Pakto::TextScan
