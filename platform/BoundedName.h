#pragma once
// A string of at most Max bytes in a fixed, trivially copyable layout (a
// length byte and Max bytes, the unused tail zero) so that names can sit in
// shared-memory records and compare by their bytes.
//
// A name type derives from it, naming itself as Derived and supplying
//    static constexpr const char* gantTypeName;     // "L3::VrfName"
//    static constexpr const char* rangeErrorText;   // over-length refusal
// and inheriting the constructors:
//    class VrfName : public BoundedName<100, VrfName> { ... using BoundedName::BoundedName; };
#include "gant/Assert.h"
#include "gant/Codec.h"

#include <compare>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <string_view>

namespace Pakto {

template <std::size_t Max, class Derived>
class BoundedName {
   static_assert(Max > 0 && Max <= 255, "the length must fit its byte");

 public:
   static constexpr std::size_t maxLength = Max;

   // The empty name.
   constexpr BoundedName() noexcept = default;
   // Implicit, for callers' convenience; each throws Gant::RangeError
   // (Derived::rangeErrorText) when the text is longer than Max bytes.
   BoundedName(std::string_view s) { assign(s); }
   BoundedName(const std::string& s) { assign(s); }
   BoundedName(const char* s) {
      GANT_ASSERT(s != nullptr);
      assign(s);
   }

   std::string_view view() const noexcept { return std::string_view(bytes_, len_); }
   std::string str() const { return std::string(view()); }
   std::size_t size() const noexcept { return len_; }
   bool empty() const noexcept { return len_ == 0; }

   bool operator==(const BoundedName&) const noexcept = default;
   // Lexicographic by bytes, as strings order.
   std::strong_ordering operator<=>(const BoundedName& o) const noexcept {
      return view() <=> o.view();
   }

   // FNV-1a over the bytes: the same as the hash of an equal Gant::String.
   uint32_t hash() const noexcept {
      uint32_t h = 2166136261u;
      for (std::size_t i = 0; i < len_; ++i) h = (h ^ static_cast<uint8_t>(bytes_[i])) * 16777619u;
      return h;
   }
   // Quoted, like a string.
   void gantText(std::string& out) const { Gant::quote(out, view()); }
   static Derived gantParse(Gant::TextReader& r) { return Derived(r.quoted()); }
   bool gantValid() const noexcept {
      if (len_ > Max) return false;
      for (std::size_t i = len_; i < Max; ++i)
         if (bytes_[i] != 0) return false;
      return true;
   }
   // Fixed width: the length byte, then all Max bytes.
   void gantLogWrite(Gant::LogWriter& w) const {
      w.uint<uint8_t>(len_);
      w.bytes(bytes_, Max);
   }
   static Derived gantLogRead(Gant::LogReader& r) {
      uint8_t len = r.uint<uint8_t>();
      if (len > Max) throw Gant::RangeError(Derived::rangeErrorText);
      Derived d;
      r.bytes(d.bytes_, Max);
      d.len_ = len;
      for (std::size_t i = len; i < Max; ++i)
         if (d.bytes_[i] != 0)
            throw Gant::ParseError(std::string("attribute log: ") + Derived::gantTypeName +
                                   " bytes beyond its length not zero");
      return d;
   }

   friend std::ostream& operator<<(std::ostream& os, const BoundedName& v) {
      return os << Gant::toText(static_cast<const Derived&>(v));
   }

 private:
   void assign(std::string_view s) {
      if (s.size() > Max) throw Gant::RangeError(Derived::rangeErrorText);
      len_ = static_cast<uint8_t>(s.size());
      if (!s.empty()) std::memcpy(bytes_, s.data(), s.size());
   }

   uint8_t len_ = 0;
   char bytes_[Max] = {};
};

} // namespace Pakto
