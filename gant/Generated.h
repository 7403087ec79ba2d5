#pragma once
// The runtime that generated code stands on. Everything a generated type
// needs beyond its own thin accessors lives here, written once.
#include "gant/Assert.h"
#include "gant/AttrLog.h"
#include "gant/Codec.h"
#include "gant/Collection.h"
#include "gant/Entity.h"
#include "gant/Error.h"
#include "gant/GenericValue.h"
#include "gant/Ptr.h"
#include "gant/String.h"
#include "gant/TextReader.h"
#include "gant/TypeInfo.h"

#include <concepts>
#include <cstdint>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace Gant {

// The generator stamps its own number into every header it writes and checks
// it against this one: a header left from another generator fails to compile
// rather than misbehave. Bump both together (gant/gen/gantgen.py, VERSION).
inline constexpr int generatorVersion = 2;

// Every element of an array of a schema's fixed size holds a valid value.
template <class T, std::size_t N>
bool validValues(const T (&a)[N]) {
   for (const T& e : a)
      if (!validValue(e)) return false;
   return true;
}

[[noreturn]] void throwRangeError(const char* text);

template <GantEnum E>
E enumInstance(std::string_view name) {
   uint32_t v;
   if (!gantEnumInfo(E{}).valueOf(name, v))
      throw ParseError(std::string("no member '") + std::string(name) + "' in " +
                       gantEnumInfo(E{}).typeName);
   return static_cast<E>(v);
}

// An entity's name from its key: strings as they are, types that know their
// own name (interface ids, bounded names) by that, anything else by its text.
template <class K>
Name keyName(const K& k) {
   if constexpr (std::is_convertible_v<const K&, std::string_view>) return Name(std::string_view(k));
   else if constexpr (requires { { k.str() } -> std::convertible_to<std::string>; }) return k.str();
   else if constexpr (requires { { k.name() } -> std::convertible_to<std::string>; }) return k.name();
   else return toText(k);
}

// The inverse of keyName, used by type-registry factories.
template <class K>
K keyFromText(std::string_view text) {
   if constexpr (std::is_constructible_v<K, std::string_view>) return K(text);
   else if constexpr (std::is_constructible_v<K, std::string>) return K(std::string(text));
   else return fromText<K>(text);
}

// Reflection's view of a collection: its text and size.
struct CollectionSnapshot {
   std::string text;
   std::size_t size = 0;
};
template <>
struct Codec<CollectionSnapshot> {
   static void text(std::string& out, const CollectionSnapshot& c) { out += c.text; }
};

template <class C>
CollectionSnapshot collectionSnapshot(const C& c) {
   CollectionSnapshot s;
   if constexpr (requires { c.values(); }) {
      collectionText(s.text, c.values());
      s.size = c.size();
   } else {
      collectionText(s.text, c);
      s.size = c.size();
   }
   return s;
}

// Entities appear in text by name.
struct EntityRef {
   Name name;
   bool null = true;
};
template <>
struct Codec<EntityRef> {
   static void text(std::string& out, const EntityRef& r) {
      if (r.null) out += "None";
      else quote(out, r.name);
   }
};
inline EntityRef entityName(const Entity* e) { return e ? EntityRef{e->name(), false} : EntityRef{}; }

// A reference to an entity held in a collection: shown and logged by name;
// it cannot be read back from text or a log (the entity lives elsewhere).
template <class T>
   requires std::derived_from<T, Entity>
struct Codec<Ptr<T>> {
   static void text(std::string& out, const Ptr<T>& p) { Codec<EntityRef>::text(out, entityName(p.ptr())); }
   static uint32_t hash(const Ptr<T>& p) { return hashU64(reinterpret_cast<uintptr_t>(p.ptr())); }
   static void logWrite(LogWriter& w, const Ptr<T>& p) {
      Codec<std::string>::logWrite(w, p ? p->name() : std::string());
   }
   static Ptr<T> logRead(LogReader&) {
      throw UnsupportedOperation("an entity reference cannot be read from an attribute log");
   }
};

template <class C>
uint32_t collectionHash(const C& c) {
   uint32_t h = static_cast<uint32_t>(c.size());
   for (const auto& e : c) {
      if constexpr (requires { e.first; e.second; }) {
         // Order-independent so hashed and ordered collections agree.
         h += hashCombine(hashOf(e.first), hashOf(e.second));
      } else {
         h += hashOf(e);
      }
   }
   return h;
}

template <class C>
void collectionLogWrite(LogWriter& w, const C& c) {
   if constexpr (requires { c.values(); }) {
      w.uint<uint32_t>(static_cast<uint32_t>(c.size()));
      for (const auto& v : c.values()) Codec<std::decay_t<decltype(v)>>::logWrite(w, v);
   } else {
      w.uint<uint32_t>(static_cast<uint32_t>(c.size()));
      for (const auto& e : c) {
         if constexpr (requires { e.first; e.second; }) {
            Codec<std::decay_t<decltype(e.first)>>::logWrite(w, e.first);
            Codec<std::decay_t<decltype(e.second)>>::logWrite(w, e.second);
         } else {
            Codec<std::decay_t<decltype(e)>>::logWrite(w, e);
         }
      }
   }
}

template <class C>
void collectionLogRead(LogReader& r, C& c) {
   uint32_t n = r.uint<uint32_t>();
   for (uint32_t i = 0; i < n; ++i) {
      if constexpr (requires { c.values(); }) {
         using V = std::decay_t<decltype(c.get(0))>;
         c.set(i, Codec<V>::logRead(r));
      } else if constexpr (requires { typename C::mapped_type; }) {
         auto k = Codec<typename C::key_type>::logRead(r);
         c[k] = Codec<typename C::mapped_type>::logRead(r);
      } else {
         c.insert(Codec<typename C::key_type>::logRead(r));
      }
   }
}

} // namespace Gant
