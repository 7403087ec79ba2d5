// The dirty record's tests: masks first, cheapest first; the two address
// lookups come last so that most routes are answered by masks alone.
#include "mroutelib/Mroute.h"

#include <sstream>

namespace MrouteLib {

namespace {

// The member's bool; an address not listed counts as false. An empty
// collection answers without hashing the address.
bool listed(const Gant::HashedMap<Pakto::IpGenAddr, bool>& m, const Pakto::IpGenAddr& a) {
   return !m.empty() && Gant::mapGet(m, a);
}

} // namespace

bool DirtyInfo::isDirty() const noexcept {
   return dirtyRoute_ || dirtyVlan_ || dirtyVlanPort_ || dirtyVlanGroup_ || dirtyLag_ || !dirtyGroupSet_.empty() ||
          !dirtyNatSrc_.empty();
}

void DirtyInfo::clear() {
   dirtyRouteIs(false);
   dirtyVlanIs(0);
   dirtyVlanPortIs(0);
   dirtyVlanGroupIs(0);
   dirtyLagIs(0);
   dirtyGroupSetDelAll();
   dirtyNatSrcDelAll();
}

// Members join as true whatever their bool in other: a merged record is
// acted upon.
void DirtyInfo::mergeWith(const DirtyInfo& other) {
   dirtyVlanIs(dirtyVlan_ | other.dirtyVlan_);
   dirtyVlanPortIs(dirtyVlanPort_ | other.dirtyVlanPort_);
   dirtyVlanGroupIs(dirtyVlanGroup_ | other.dirtyVlanGroup_);
   dirtyLagIs(dirtyLag_ | other.dirtyLag_);
   if (other.dirtyRoute_) dirtyRouteIs(true);
   for (const auto& [addr, on] : other.dirtyGroupSet_) dirtyGroupSetIs(addr, true);
   for (const auto& [addr, on] : other.dirtyNatSrc_) dirtyNatSrcIs(addr, true);
}

bool DirtyInfo::mrouteL2Dirty(const Mroute& route) const {
   return (dirtyVlan_ & route.vlanFilter()) || (dirtyVlanPort_ & route.vlanPortFilter()) ||
          (dirtyVlanGroup_ & route.vlanGroupFilter()) || listed(dirtyGroupSet_, route.key().g().address()) ||
          (dirtyLag_ & route.lagFilter()) || listed(dirtyNatSrc_, route.key().s().address());
}

bool DirtyInfo::mrouteDirty(const Mroute& route) const { return route.dirty() || mrouteL2Dirty(route); }

bool DirtyInfo::boundaryDirty(const Gant::PtrConst<BoundaryMroute>& route) const {
   return route->dirty() || (dirtyVlan_ & route->vlanFilter()) || (dirtyVlanPort_ & route->vlanPortFilter()) ||
          (dirtyVlanGroup_ & route->vlanGroupFilter()) || (dirtyLag_ & route->lagFilter());
}

Gant::String DirtyInfo::mrouteDirtyInfoStr(const Gant::PtrConst<Mroute>& route) const {
   std::ostringstream os;
   os << std::hex << route->vlanFilter() << ' ' << route->vlanPortFilter() << ' ' << route->vlanGroupFilter() << ' '
      << route->lagFilter() << ' ' << dirtyVlan_ << ' ' << dirtyVlanPort_ << ' ' << dirtyVlanGroup_ << ' '
      << listed(dirtyGroupSet_, route->key().g().address()) << ' '
      << listed(dirtyNatSrc_, route->key().s().address()) << ' ' << dirtyLag_;
   return os.str();
}

Gant::Ptr<DirtyInfo> dirtyInfoFactory() { return dirtyInfoFactory(Gant::Name()); }

} // namespace MrouteLib
