#include "hive/Dir.h"

#include "gant/Assert.h"
#include "gant/Generated.h"

namespace Hive {

Dir::~Dir() {
   for (auto& [name, child] : entries_)
      if (child->parent() == this) child->parentIs(nullptr);
}

Gant::Ptr<Gant::Entity> Dir::entry(const Gant::Name& name) const {
   auto it = entries_.find(name);
   return it == entries_.end() ? nullptr : it->second;
}

void Dir::entryIs(const Gant::Name& name, const Gant::Ptr<Gant::Entity>& child) {
   GANT_ASSERT(child);
   auto [it, inserted] = entries_.try_emplace(name, child);
   if (!inserted) {
      if (it->second == child) return;
      if (it->second->parent() == this) it->second->parentIs(nullptr);
      it->second = child;
   }
   child->parentIs(this);
   notify(&Reactor::onEntry, name);
}

void Dir::entryDel(const Gant::Name& name) {
   auto it = entries_.find(name);
   if (it == entries_.end()) return;
   Gant::Ptr<Gant::Entity> gone = it->second;
   entries_.erase(it);
   if (gone->parent() == this) gone->parentIs(nullptr);
   notify(&Reactor::onEntry, name);
}

Gant::Ptr<Dir> Dir::dirIs(const Gant::Name& name) {
   Gant::Ptr<Gant::Entity> e = entry(name);
   if (e) {
      auto* d = dynamic_cast<Dir*>(e.ptr());
      GANT_ASSERT(d != nullptr);
      return d;
   }
   Gant::Ptr<Dir> d = dirFactory(name);
   entryIs(name, d);
   return d;
}

const Gant::TypeInfo& Dir::typeInfo() const noexcept { return gantTypeInfo(); }

const Gant::TypeInfo& Dir::gantTypeInfo() {
   static const Gant::AttrInfo attrs[] = {
       {"name", Gant::AttrKind::key, "Name",
        [](const void* o) -> Gant::GenericValue {
           return static_cast<const Dir*>(static_cast<const Gant::Entity*>(o))->name();
        },
        nullptr, nullptr},
       {"entry", Gant::AttrKind::collection, "Gant::Entity",
        [](const void* o) -> Gant::GenericValue {
           const Dir* d = static_cast<const Dir*>(static_cast<const Gant::Entity*>(o));
           Gant::CollectionSnapshot s;
           s.size = d->entries().size();
           s.text = "{";
           for (const auto& [n, e] : d->entries()) {
              if (s.text.size() > 1) s.text += ", ";
              Gant::quote(s.text, n);
              s.text += ": ";
              s.text += e->typeName();
           }
           s.text += "}";
           return s;
        },
        nullptr, nullptr},
   };
   static const Gant::TypeInfo info{
       gantTypeName, attrs,
       [](std::string_view name) -> Gant::Ptr<Gant::Entity> { return dirFactory(Gant::Name(name)); }};
   return info;
}

static const Gant::TypeRegistration registerDir(Dir::gantTypeInfo());

Gant::Ptr<Dir> dirFactory(const Gant::Name& name) { return Gant::make<Dir>(name); }

} // namespace Hive
