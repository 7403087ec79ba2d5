#include "platform/IntfId.h"

#include "platform/TextScan.h"

#include <array>

namespace Pakto {

namespace {

struct Kind {
   std::string_view prefix;
   uint32_t tag;
   uint32_t minNumbers;
   uint32_t maxNumbers;
   bool subinterfaces;
};

constexpr std::array<Kind, 9> kKinds{{
    {"Ethernet", 1, 1, 3, true},
    {"Port-Channel", 2, 1, 1, true},
    {"Vlan", 3, 1, 1, false},
    {"Loopback", 4, 1, 1, false},
    {"Management", 5, 1, 2, false},
    {"Tunnel", 6, 1, 1, false},
    {"Vxlan", 7, 1, 1, false},
    {"Register", 8, 1, 1, false},
    {"Cpu", 9, 0, 0, false},
}};

constexpr uint32_t kTagShift = 24;
constexpr uint32_t kFirstMax = (1u << 24) - 1;
constexpr uint32_t kSecondShift = 22;
constexpr uint32_t kSecondMax = (1u << 10) - 2; // one code is "absent"
constexpr uint32_t kThirdShift = 16;
constexpr uint32_t kThirdMax = (1u << 6) - 2;
constexpr uint32_t kSubMax = (1u << 16) - 2;

const Kind* kindOfTag(uint32_t tag) noexcept {
   for (const Kind& k : kKinds)
      if (k.tag == tag) return &k;
   return nullptr;
}

struct Fields {
   const Kind* kind = nullptr;
   uint32_t numbers[3] = {0, 0, 0};
   uint32_t count = 0;
   bool hasSub = false;
   uint32_t sub = 0;
};

// The fields of an encoded value, or kind == nullptr when the value is not
// one that a name produces.
Fields decode(uint32_t high, uint32_t low) noexcept {
   Fields f;
   const Kind* kind = kindOfTag(high >> kTagShift);
   if (!kind) return f;
   uint32_t second = low >> kSecondShift;
   uint32_t third = (low >> kThirdShift) & 0x3f;
   uint32_t sub = low & 0xffff;
   f.numbers[0] = high & kFirstMax;
   f.count = 1;
   if (second != 0) {
      f.numbers[1] = second - 1;
      f.count = 2;
   }
   if (third != 0) {
      if (second == 0) return f;
      f.numbers[2] = third - 1;
      f.count = 3;
   }
   if (kind->minNumbers == 0) {
      // A kind without numbers has nothing in the other bits either.
      if ((high & kFirstMax) != 0 || low != 0) return f;
      f.count = 0;
   }
   if (f.count > kind->maxNumbers) return f;
   if (sub != 0) {
      if (!kind->subinterfaces) return f;
      f.hasSub = true;
      f.sub = sub - 1;
   }
   f.kind = kind;
   return f;
}

[[noreturn]] void badName(std::string_view name) {
   throw Gant::ParseError("IntfId: cannot encode interface name '" + std::string(name) + "'");
}

} // namespace

IntfId::IntfId(std::string_view name) {
   if (name.empty()) return;
   const Kind* kind = nullptr;
   for (const Kind& k : kKinds)
      if (name.starts_with(k.prefix)) kind = &k;
   if (!kind) badName(name);
   std::string_view rest = name.substr(kind->prefix.size());

   uint32_t sub = 0;
   bool hasSub = false;
   if (std::size_t dot = rest.find('.'); dot != std::string_view::npos) {
      if (!kind->subinterfaces || !TextScan::decimal(rest.substr(dot + 1), kSubMax, sub))
         badName(name);
      hasSub = true;
      rest = rest.substr(0, dot);
   }

   uint32_t numbers[3] = {0, 0, 0};
   uint32_t count = 0;
   static constexpr uint32_t kMax[3] = {kFirstMax, kSecondMax, kThirdMax};
   while (!rest.empty()) {
      if (count == kind->maxNumbers) badName(name);
      std::size_t slash = rest.find('/');
      if (!TextScan::decimal(rest.substr(0, slash), kMax[count], numbers[count])) badName(name);
      ++count;
      // A trailing '/' leaves an empty number behind it, which is refused.
      rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
      if (slash != std::string_view::npos && rest.empty()) badName(name);
   }
   if (count < kind->minNumbers) badName(name);

   high_ = kind->tag << kTagShift | numbers[0];
   if (count >= 2) low_ |= (numbers[1] + 1) << kSecondShift;
   if (count >= 3) low_ |= (numbers[2] + 1) << kThirdShift;
   if (hasSub) low_ |= sub + 1;
}

IntfId IntfId::fromValue(uint64_t value) {
   auto high = static_cast<uint32_t>(value >> 32);
   auto low = static_cast<uint32_t>(value);
   if (value != 0 && !decode(high, low).kind)
      throw Gant::RangeError("IntfId::value is not a valid interface encoding");
   return IntfId(high, low);
}

bool IntfId::gantValid() const noexcept { return (high_ == 0 && low_ == 0) || decode(high_, low_).kind; }

std::string IntfId::name() const {
   std::string out;
   gantText(out);
   return out;
}

void IntfId::gantText(std::string& out) const {
   if (!*this) return;
   // Every constructor validates; bytes copied from a shared segment whose
   // damage came after their check may still not decode.
   Fields f = decode(high_, low_);
   if (!f.kind) {
      out += "InvalidIntfId";
      return;
   }
   out += f.kind->prefix;
   for (uint32_t i = 0; i < f.count; ++i) {
      if (i != 0) out += '/';
      TextScan::appendDecimal(out, f.numbers[i]);
   }
   if (f.hasSub) {
      out += '.';
      TextScan::appendDecimal(out, f.sub);
   }
}

IntfId IntfId::gantParse(Gant::TextReader& r) { return IntfId(r.atom()); }

std::ostream& operator<<(std::ostream& os, const IntfId& v) { return os << v.name(); }

} // namespace Pakto
