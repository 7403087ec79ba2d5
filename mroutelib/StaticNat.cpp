// Static NAT records and the review records: what is not generated.
#include "mroutelib/Review.h"
#include "mroutelib/StaticNat.h"

namespace MrouteLib {

void StaticNatIpInfo::gantText(std::string& out) const { out += "None"; }

StaticNatIpInfo StaticNatIpInfo::gantParse(Gant::TextReader& r) {
   GANT_ASSERT(!"No String constructor for StaticNatIpInfo - has collection");
   (void)r;
   return {};
}

Gant::Ptr<StaticNatInfo> staticNatInfoFactory() { return staticNatInfoFactory(Gant::Name()); }
Gant::Ptr<DirtyChangeSet> dirtyChangeSetFactory() { return dirtyChangeSetFactory(Gant::Name()); }
Gant::Ptr<ReviewInfo> reviewInfoFactory() { return reviewInfoFactory(Gant::Name()); }

} // namespace MrouteLib
