#pragma once
// The value protocol every attribute type follows: text form, parse back,
// 32-bit hash, and the attribute-log encoding. Built-in types are handled
// here; generated types get it from the generator; hand-written value types
// provide the members that the class-type codec below forwards to:
//    void gantText(std::string&) const;      static T gantParse(TextReader&);
//    uint32_t gantHash() const (or hash());  void gantLogWrite(LogWriter&) const;
//    static T gantLogRead(LogReader&);       static constexpr const char* gantTypeName;
#include "gant/AttrLog.h"
#include "gant/Hash.h"
#include "gant/String.h"
#include "gant/TextReader.h"

#include <bit>
#include <cstring>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Gant {

template <class T>
struct Codec;

template <class T>
concept ClassValue = requires(const T& v, std::string& s, TextReader& tr, LogWriter& lw,
                              LogReader& lr) {
   v.gantText(s);
   { T::gantParse(tr) } -> std::same_as<T>;
   requires requires { { v.gantHash() } -> std::convertible_to<uint32_t>; } ||
                requires { { v.hash() } -> std::convertible_to<uint32_t>; };
   v.gantLogWrite(lw);
   { T::gantLogRead(lr) } -> std::same_as<T>;
};

template <ClassValue T>
struct Codec<T> {
   static void text(std::string& out, const T& v) { v.gantText(out); }
   static T parse(TextReader& r) { return T::gantParse(r); }
   static uint32_t hash(const T& v) {
      if constexpr (requires { v.gantHash(); }) return v.gantHash();
      else return v.hash();
   }
   static void logWrite(LogWriter& w, const T& v) { v.gantLogWrite(w); }
   static T logRead(LogReader& r) { return T::gantLogRead(r); }
};

template <>
struct Codec<bool> {
   static void text(std::string& out, bool v) { out += v ? "True" : "False"; }
   static bool parse(TextReader& r) {
      if (r.consume("True") || r.consume("true")) return true;
      if (r.consume("False") || r.consume("false")) return false;
      r.fail("True or False");
   }
   static uint32_t hash(bool v) { return v ? 1u : 0u; }
   static void logWrite(LogWriter& w, bool v) { w.uint<uint8_t>(v ? 1 : 0); }
   static bool logRead(LogReader& r) {
      uint8_t b = r.uint<uint8_t>();
      if (b > 1) throw ParseError("attribute log: bool byte " + std::to_string(b) + " not 0 or 1");
      return b == 1;
   }
};

template <std::integral T>
   requires(!std::same_as<T, bool>)
struct Codec<T> {
   using U = std::make_unsigned_t<T>;
   static void text(std::string& out, T v) {
      char buf[24];
      auto res = std::to_chars(buf, buf + sizeof buf, v);
      out.append(buf, res.ptr);
   }
   static T parse(TextReader& r) {
      std::string_view a = r.atom();
      T v{};
      auto res = std::from_chars(a.data(), a.data() + a.size(), v);
      if (a.empty() || res.ec != std::errc() || res.ptr != a.data() + a.size())
         r.fail("an integer in range");
      return v;
   }
   static uint32_t hash(T v) {
      if constexpr (sizeof(T) > 4) return hashU64(static_cast<uint64_t>(v));
      else return hashMix(static_cast<uint32_t>(v));
   }
   static void logWrite(LogWriter& w, T v) { w.uint<U>(static_cast<U>(v)); }
   static T logRead(LogReader& r) { return static_cast<T>(r.uint<U>()); }
};

template <>
struct Codec<double> {
   static void text(std::string& out, double v);
   static double parse(TextReader& r);
   static uint32_t hash(double v) { return hashU64(std::bit_cast<uint64_t>(v == 0.0 ? 0.0 : v)); }
   static void logWrite(LogWriter& w, double v) { w.uint<uint64_t>(std::bit_cast<uint64_t>(v)); }
   static double logRead(LogReader& r) { return std::bit_cast<double>(r.uint<uint64_t>()); }
};

template <>
struct Codec<std::string> {
   static void text(std::string& out, const std::string& v) { quote(out, v); }
   static std::string parse(TextReader& r) { return r.quoted(); }
   static uint32_t hash(const std::string& v);
   static void logWrite(LogWriter& w, const std::string& v) {
      w.uint<uint32_t>(static_cast<uint32_t>(v.size()));
      w.bytes(v.data(), v.size());
   }
   static std::string logRead(LogReader& r);
};

// Enumerations describe themselves through an EnumInfo found by ADL:
//    const Gant::EnumInfo& gantEnumInfo(E);
struct EnumInfo {
   struct Member {
      const char* name;
      uint32_t value;
   };
   const char* typeName;
   std::vector<Member> members;

   const char* nameOf(uint32_t v) const noexcept; // nullptr when unnamed
   bool valueOf(std::string_view name, uint32_t& v) const noexcept;
};

template <class E>
concept GantEnum = std::is_enum_v<E> && requires(E e) {
   { gantEnumInfo(e) } -> std::same_as<const EnumInfo&>;
};

// The member name, or the number for a value without one.
std::string enumText(const EnumInfo& info, uint32_t v);

template <GantEnum E>
struct Codec<E> {
   static const EnumInfo& info() { return gantEnumInfo(E{}); }
   // Embedded in another value's text the name is quoted so it reads back.
   static void text(std::string& out, E v) {
      quote(out, enumText(info(), static_cast<uint32_t>(v)));
   }
   static E parse(TextReader& r) {
      std::string name = r.quoted();
      uint32_t v;
      if (!info().valueOf(name, v))
         throw ParseError(std::string("no member '") + name + "' in " + info().typeName);
      return static_cast<E>(v);
   }
   static uint32_t hash(E v) { return hashMix(static_cast<uint32_t>(v)); }
   static void logWrite(LogWriter& w, E v) { w.uint<uint32_t>(static_cast<uint32_t>(v)); }
   static E logRead(LogReader& r) {
      uint32_t v = r.uint<uint32_t>();
      if (!info().nameOf(v))
         throw RangeError(std::string(info().typeName) + " value " + std::to_string(v) +
                          " not allowed");
      return static_cast<E>(v);
   }
};

// Convenience front ends.
template <class T>
std::string toText(const T& v) {
   std::string out;
   Codec<T>::text(out, v);
   return out;
}

// Parses a whole text form; trailing text is an error.
template <class T>
T fromText(std::string_view text) {
   TextReader r(text);
   T v = Codec<T>::parse(r);
   r.expectEnd();
   return v;
}

template <class T>
std::string toLog(const T& v) {
   LogWriter w;
   Codec<T>::logWrite(w, v);
   return w.take();
}

template <class T>
T fromLog(std::string_view log) {
   LogReader r(log);
   T v = Codec<T>::logRead(r);
   if (!r.atEnd()) throw ParseError("attribute log: trailing bytes");
   return v;
}

template <class T>
uint32_t hashOf(const T& v) {
   return Codec<T>::hash(v);
}

// A std-compatible hasher for unordered containers.
template <class T>
struct Hash {
   std::size_t operator()(const T& v) const { return Codec<T>::hash(v); }
};

} // namespace Gant

namespace Gant {

// Whether the bytes of a value copied from outside (shared memory) hold a
// value its type can have: a bool is 0 or 1, an enumeration a named member,
// and a type with its own rules says so through gantValid().
template <class T>
bool validValue(const T& v) {
   if constexpr (std::is_same_v<T, bool>) {
      unsigned char b;
      std::memcpy(&b, &v, 1);
      return b <= 1;
   } else if constexpr (GantEnum<T>) {
      return gantEnumInfo(T{}).nameOf(static_cast<uint32_t>(v)) != nullptr;
   } else if constexpr (requires { v.gantValid(); }) {
      return v.gantValid();
   } else {
      return true;
   }
}

} // namespace Gant
