#pragma once
// The in-process state tree: directories of named entities, mounted at paths
// such as "routing/multicast/status". A directory is itself an entity whose
// reactors hear of every child added or removed.
#include "gant/Entity.h"

#include <map>
#include <string_view>

namespace Hive {

class Dir : public Gant::Entity {
 public:
   class Reactor : public Gant::Reactor {
    public:
      explicit Reactor(Dir* d = nullptr) { attachTo(d); }
      Dir* notifier() const noexcept { return static_cast<Dir*>(entity()); }
      void notifierIs(Dir* d) { attachTo(d); }
      // A child was added, replaced or removed under that name.
      virtual void onEntry(const Gant::Name&) {}
   };

   explicit Dir(Gant::Name name) : Entity(std::move(name)) {}
   ~Dir() override;

   const std::map<Gant::Name, Gant::Ptr<Gant::Entity>>& entries() const noexcept { return entries_; }
   Gant::Ptr<Gant::Entity> entry(const Gant::Name& name) const;
   // Adds or replaces the child and parents it; no-op for the same child.
   void entryIs(const Gant::Name& name, const Gant::Ptr<Gant::Entity>& child);
   void entryDel(const Gant::Name& name);
   // The subdirectory of that name, created when absent. A non-directory
   // entry of that name is a misuse: it asserts.
   Gant::Ptr<Dir> dirIs(const Gant::Name& name);

   const Gant::TypeInfo& typeInfo() const noexcept override;
   static const Gant::TypeInfo& gantTypeInfo();
   static constexpr const char* gantTypeName = "Hive::Dir";

 private:
   std::map<Gant::Name, Gant::Ptr<Gant::Entity>> entries_;
};

Gant::Ptr<Dir> dirFactory(const Gant::Name& name);

} // namespace Hive
