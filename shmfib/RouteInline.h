#pragma once
// The walk over a route's outgoing interfaces.
#include <type_traits>

namespace Pond::Multicast::Fib {

static_assert(std::is_trivially_copyable_v<Route>, "routes are copied whole through shared memory");
static_assert(sizeof(Route) == 160, "the same record on 32- and 64-bit builds");

// Walks the set bits of a route's outgoing-interface set through nextOif:
//    for (auto it = route.oifIteratorConst(); it; ++it) use(*it);
class OifIteratorConst {
 public:
   OifIteratorConst(const Route& route, OifIndex start) : route_(&route) {
      if (start == OifIndex::null()) at_ = route.nextOif(OifIndex::null());
      else at_ = route.oif(start) ? start : route.nextOif(start);
   }
   explicit operator bool() const noexcept { return at_ != OifIndex::null(); }
   OifIndex operator*() const noexcept { return at_; }
   OifIteratorConst& operator++() {
      at_ = route_->nextOif(at_);
      return *this;
   }

 private:
   const Route* route_;
   OifIndex at_;
};

inline OifIteratorConst Route::oifIteratorConst(OifIndex start) const { return OifIteratorConst(*this, start); }

} // namespace Pond::Multicast::Fib
