#pragma once
// Entities: named, reference-counted objects with a parent and a list of
// reactors. Generated entity types derive from Entity and notify through
// notify(), which tolerates any reactor being removed, or the entity being
// dropped, from inside a handler.
#include "gant/Ptr.h"
#include "gant/String.h"
#include "gant/TypeInfo.h"

#include <cstdint>
#include <vector>

namespace Gant {

class Reactor;

class Entity : public PtrInterface {
 public:
   Entity(const Entity&) = delete;
   Entity& operator=(const Entity&) = delete;

   // The key as text: the name, or the typed key's text form.
   const Name& name() const noexcept { return name_; }
   Entity* parent() const noexcept { return parent_; }
   void parentIs(Entity* p) noexcept { parent_ = p; }

   virtual const TypeInfo& typeInfo() const noexcept = 0;
   const char* typeName() const noexcept { return typeInfo().name; }

   // Reflection by attribute name.
   GenericValue attr(std::string_view attrName) const {
      return attrGet(typeInfo(), this, attrName);
   }
   void attrIs(std::string_view attrName, const GenericValue& v) {
      attrSet(typeInfo(), this, attrName, v);
   }
   void attrIsText(std::string_view attrName, std::string_view text) {
      attrSetText(typeInfo(), this, attrName, text);
   }

   std::size_t reactors() const noexcept;

 protected:
   explicit Entity(Name name) : name_(std::move(name)) {}
   ~Entity() override;
   // For an entity rebuilt from a backup before anything holds it by name:
   // a parent's collection keeps the key it was inserted under.
   void nameIs(Name name) { name_ = std::move(name); }

   // Calls handler on every active reactor attached now. Reactors attached
   // during the walk wait for the next change; removed ones are skipped.
   template <class R, class... P, class... A>
   void notify(void (R::*handler)(P...), const A&... args) {
      if (reactors_.empty()) return;
      NotifyScope scope(*this);
      const std::size_t n = reactors_.size();
      for (std::size_t i = 0; i < n; ++i) {
         Reactor* r = reactors_[i];
         // A reactor of a base type attached to a derived entity hears
         // only the base's attributes: it has no handler for the others.
         if (r && isActive(r) && depthOf(r) >= R::reactorDepth) (static_cast<R*>(r)->*handler)(args...);
      }
   }

 private:
   friend class Reactor;
   // Keeps the entity alive and the reactor list stable during a walk.
   struct NotifyScope {
      explicit NotifyScope(Entity& e);
      ~NotifyScope();
      Entity& entity;
      bool held;
   };
   static bool isActive(const Reactor* r) noexcept;
   static uint8_t depthOf(const Reactor* r) noexcept;
   void attach(Reactor* r);
   void detach(Reactor* r) noexcept;

   Name name_;
   Entity* parent_ = nullptr;
   std::vector<Reactor*> reactors_;
   uint32_t walking_ = 0;
   bool holes_ = false;
};

// Base of every generated X::Reactor. Registration undoes itself on
// destruction; an entity that dies first detaches its reactors, so a reactor
// that outlives its entity simply stops reacting.
class Reactor {
 public:
   Reactor(const Reactor&) = delete;
   Reactor& operator=(const Reactor&) = delete;
   virtual ~Reactor() { attachTo(nullptr); }

   Entity* entity() const noexcept { return entity_; }
   bool active() const noexcept { return active_; }
   void activeIs(bool a) noexcept { active_ = a; }
   // How far down an entity hierarchy a reactor type sits: X::Reactor of an
   // entity derived from B has B::Reactor's depth plus one.
   static constexpr uint8_t reactorDepth = 0;

 protected:
   Reactor() = default;
   void attachTo(Entity* e);
   void depthIs(uint8_t depth) noexcept { depth_ = depth; }

 private:
   friend class Entity;
   Entity* entity_ = nullptr;
   bool active_ = true;
   uint8_t depth_ = 0;
};

inline bool Entity::isActive(const Reactor* r) noexcept { return r->active_; }
inline uint8_t Entity::depthOf(const Reactor* r) noexcept { return r->depth_; }

// An entity's identity as a value (the value of a collection that names
// which table holds a key, say): hashed by address, printed by name. It has
// no text or log form to read back: an address means nothing elsewhere.
template <class T>
   requires std::derived_from<T, Entity>
struct Codec<const T*> {
   static void text(std::string& out, const T* e) {
      if (e) quote(out, e->name());
      else out += "None";
   }
   static const T* parse(TextReader& r) { r.fail("an entity's name in its state tree, not its identity"); }
   static uint32_t hash(const T* e) { return hashU64(reinterpret_cast<uintptr_t>(e)); }
   static void logWrite(LogWriter&, const T*) {
      throw UnsupportedOperation("an entity's identity has no attribute log form");
   }
   static const T* logRead(LogReader&) { throw UnsupportedOperation("an entity's identity has no attribute log form"); }
};

// The same for a pointer through which the holder may change the entity (a
// registry of entities that own themselves, say).
template <class T>
   requires std::derived_from<T, Entity>
struct Codec<T*> {
   static void text(std::string& out, const T* e) { Codec<const T*>::text(out, e); }
   static T* parse(TextReader& r) { r.fail("an entity's name in its state tree, not its identity"); }
   static uint32_t hash(const T* e) { return Codec<const T*>::hash(e); }
   static void logWrite(LogWriter& w, const T* e) { Codec<const T*>::logWrite(w, e); }
   static T* logRead(LogReader&) { throw UnsupportedOperation("an entity's identity has no attribute log form"); }
};

} // namespace Gant
