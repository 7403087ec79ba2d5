#include "gant/Entity.h"

#include <algorithm>

namespace Gant {

Entity::~Entity() {
   for (Reactor* r : reactors_)
      if (r) r->entity_ = nullptr;
}

std::size_t Entity::reactors() const noexcept {
   return std::count_if(reactors_.begin(), reactors_.end(), [](Reactor* r) { return r; });
}

Entity::NotifyScope::NotifyScope(Entity& e) : entity(e), held(e.refCount() > 0) {
   // An entity not yet owned by any Ptr (still being built) cannot be dropped
   // by a handler, so only owned ones are pinned.
   if (held) e.ref();
   ++e.walking_;
}

Entity::NotifyScope::~NotifyScope() {
   if (--entity.walking_ == 0 && entity.holes_) {
      std::erase(entity.reactors_, nullptr);
      entity.holes_ = false;
   }
   if (held) entity.unref();
}

void Entity::attach(Reactor* r) { reactors_.push_back(r); }

void Entity::detach(Reactor* r) noexcept {
   auto it = std::find(reactors_.begin(), reactors_.end(), r);
   if (it == reactors_.end()) return;
   if (walking_ > 0) {
      *it = nullptr;
      holes_ = true;
   } else {
      reactors_.erase(it);
   }
}

void Reactor::attachTo(Entity* e) {
   if (e == entity_) return;
   if (entity_) entity_->detach(this);
   entity_ = e;
   if (entity_) entity_->attach(this);
}

} // namespace Gant
