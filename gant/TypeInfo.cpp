#include "gant/TypeInfo.h"
#include "gant/TextReader.h"

#include <algorithm>
#include <vector>

namespace Gant {

const char* attrKindName(AttrKind k) noexcept {
   switch (k) {
   case AttrKind::value: return "value";
   case AttrKind::counter: return "counter";
   case AttrKind::constant: return "constant";
   case AttrKind::key: return "key";
   case AttrKind::collection: return "collection";
   case AttrKind::children: return "children";
   case AttrKind::reference: return "reference";
   }
   return "?";
}

const AttrInfo* TypeInfo::attr(std::string_view attrName) const noexcept {
   for (const AttrInfo& a : attrs)
      if (attrName == a.name) return &a;
   return nullptr;
}

static const AttrInfo& findAttr(const TypeInfo& t, std::string_view name) {
   const AttrInfo* a = t.attr(name);
   if (!a)
      throw UnsupportedOperation(std::string(t.name) + " has no attribute '" + std::string(name) +
                                 "'");
   return *a;
}

static void refuseWrite(const TypeInfo& t, const AttrInfo& a) {
   throw UnsupportedOperation(std::string(t.name) + "::" + a.name + " is " +
                              attrKindName(a.kind) + " and cannot be written");
}

GenericValue attrGet(const TypeInfo& t, const void* obj, std::string_view name) {
   const AttrInfo& a = findAttr(t, name);
   if (!a.get)
      throw UnsupportedOperation(std::string(t.name) + "::" + a.name + " cannot be read");
   return a.get(obj);
}

void attrSet(const TypeInfo& t, void* obj, std::string_view name, const GenericValue& v) {
   const AttrInfo& a = findAttr(t, name);
   if (!a.set) refuseWrite(t, a);
   a.set(obj, v);
}

void attrSetText(const TypeInfo& t, void* obj, std::string_view name, std::string_view text) {
   const AttrInfo& a = findAttr(t, name);
   if (!a.setText) refuseWrite(t, a);
   TextReader r(text);
   a.setText(obj, r);
   r.expectEnd();
}

namespace TypeRegistry {

static std::vector<const TypeInfo*>& types() {
   static std::vector<const TypeInfo*> v;
   return v;
}

void add(const TypeInfo& t) {
   auto& v = types();
   auto it = std::lower_bound(v.begin(), v.end(), &t, [](const TypeInfo* a, const TypeInfo* b) {
      return std::string_view(a->name) < std::string_view(b->name);
   });
   if (it != v.end() && std::string_view((*it)->name) == t.name) return;
   v.insert(it, &t);
}

const TypeInfo* find(std::string_view name) {
   auto& v = types();
   auto it = std::lower_bound(v.begin(), v.end(), name, [](const TypeInfo* a, std::string_view n) {
      return std::string_view(a->name) < n;
   });
   return it != v.end() && (*it)->name == name ? *it : nullptr;
}

std::span<const TypeInfo* const> all() { return types(); }

} // namespace TypeRegistry
} // namespace Gant
