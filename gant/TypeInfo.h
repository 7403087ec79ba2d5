#pragma once
// The static attribute table of a generated type: what reflection, the type
// registry and tools see. One table per type, emitted by the generator.
#include "gant/GenericValue.h"
#include "gant/Ptr.h"
#include "gant/String.h"

#include <span>
#include <string_view>

namespace Gant {

class Entity;
class TextReader;
struct EnumInfo;

enum class AttrKind : uint8_t {
   value,      // getter and xIs setter
   counter,    // value with xInc (and maybe xDec), wrapping at its width
   constant,   // read-only
   key,        // an entity's key, fixed at creation
   collection, // keyed collection of values
   children,   // owned collection of entities
   reference,  // pointer to an entity owned elsewhere
};

const char* attrKindName(AttrKind k) noexcept;

struct AttrInfo {
   const char* name;
   AttrKind kind;
   const char* typeName; // attribute type as written in the schema
   // Reads the attribute of obj (a pointer to the owning type).
   GenericValue (*get)(const void* obj);
   // Writes it, going through the checked setter; null when not writable.
   void (*set)(void* obj, const GenericValue& v);
   // Parses the attribute's text form and writes it; null when not writable.
   void (*setText)(void* obj, TextReader& r);
};

struct TypeInfo {
   const char* name; // full C++ name, also the registered type name
   std::span<const AttrInfo> attrs;
   // Creates an entity of this type from its key's text; null for values.
   Ptr<Entity> (*factory)(std::string_view keyText) = nullptr;
   // An enumeration's members; null for every other type.
   const EnumInfo* enumInfo = nullptr;

   const AttrInfo* attr(std::string_view attrName) const noexcept;
};

// Reflection over any object with a TypeInfo. Unknown names and writes to
// read-only attributes raise UnsupportedOperation.
GenericValue attrGet(const TypeInfo& t, const void* obj, std::string_view name);
void attrSet(const TypeInfo& t, void* obj, std::string_view name, const GenericValue& v);
void attrSetText(const TypeInfo& t, void* obj, std::string_view name, std::string_view text);

// Value-type front ends: Gant::attr(intf, "intfFlags").
template <class T>
GenericValue attr(const T& v, std::string_view name) {
   return attrGet(T::gantTypeInfo(), &v, name);
}
template <class T>
void attrIs(T& v, std::string_view name, const GenericValue& g) {
   attrSet(T::gantTypeInfo(), &v, name, g);
}

// The process-wide registry of types by full name.
namespace TypeRegistry {
void add(const TypeInfo& t);
const TypeInfo* find(std::string_view name);
std::span<const TypeInfo* const> all();
} // namespace TypeRegistry

// Registers a type at static-initialisation time.
struct TypeRegistration {
   explicit TypeRegistration(const TypeInfo& t) { TypeRegistry::add(t); }
};

} // namespace Gant
