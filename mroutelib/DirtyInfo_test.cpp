// The dirty record: which routes a pass reprograms, and how records merge.
#include "mroutelib/Mroute.h"

#include <gtest/gtest.h>

namespace {

using namespace MrouteLib;

Pakto::IpGenAddr addr(const char* text) { return Gant::fromText<Pakto::IpGenAddr>(text); }

Gant::Ptr<Mroute> route() {
   return mrouteFactory(Routing::Multicast::Fib::IpGenRouteKey(Gant::fromText<Pakto::IpGenPrefix>("10.0.0.1/32"),
                                                               Gant::fromText<Pakto::IpGenPrefix>("239.1.1.1/32")),
                        nullptr);
}

TEST(DirtyInfo, RouteTests) {
   struct Case {
      void (*record)(DirtyInfo&);
      void (*routeIs)(Mroute&);
      bool dirty, l2Dirty;
   };
   const Case cases[] = {
       {[](DirtyInfo&) {}, [](Mroute&) {}, false, false},
       {[](DirtyInfo&) {}, [](Mroute& r) { r.dirtyIs(true); }, true, false},
       {[](DirtyInfo& d) { d.dirtyRouteIs(true); }, [](Mroute&) {}, false, false}, // the caller's test
       {[](DirtyInfo& d) { d.dirtyVlanIs(6); }, [](Mroute& r) { r.vlanFilterIs(2); }, true, true},
       {[](DirtyInfo& d) { d.dirtyVlanIs(4); }, [](Mroute& r) { r.vlanFilterIs(2); }, false, false},
       {[](DirtyInfo& d) { d.dirtyVlanPortIs(1); }, [](Mroute& r) { r.vlanPortFilterIs(1); }, true, true},
       {[](DirtyInfo& d) { d.dirtyVlanGroupIs(1ull << 40); }, [](Mroute& r) { r.vlanGroupFilterIs(3ull << 40); },
        true, true},
       {[](DirtyInfo& d) { d.dirtyLagIs(8); }, [](Mroute& r) { r.lagFilterIs(9); }, true, true},
       {[](DirtyInfo& d) { d.dirtyGroupSetIs(addr("239.1.1.1"), true); }, [](Mroute&) {}, true, true},
       {[](DirtyInfo& d) { d.dirtyGroupSetIs(addr("239.1.1.1"), false); }, [](Mroute&) {}, false, false},
       {[](DirtyInfo& d) { d.dirtyGroupSetIs(addr("239.1.1.2"), true); }, [](Mroute&) {}, false, false},
       {[](DirtyInfo& d) { d.dirtyNatSrcIs(addr("10.0.0.1"), true); }, [](Mroute&) {}, true, true},
       {[](DirtyInfo& d) { d.dirtyGroupSetIs(addr("10.0.0.1"), true); }, [](Mroute&) {}, false, false}, // no group
   };
   for (const Case& c : cases) {
      auto info = dirtyInfoFactory();
      auto r = route();
      c.record(*info), c.routeIs(*r);
      EXPECT_EQ(info->mrouteDirty(*r), c.dirty) << &c - cases;
      EXPECT_EQ(info->mrouteL2Dirty(*r), c.l2Dirty) << &c - cases;
   }
}

TEST(DirtyInfo, MergeClearBoundaryAndTheTraceString) {
   auto info = dirtyInfoFactory(), other = dirtyInfoFactory();
   info->dirtyGroupSetIs(addr("239.1.1.1"), false);
   EXPECT_TRUE(info->isDirty()) << "any member counts, whatever its bool";
   other->dirtyNatSrcIs(addr("10.0.0.1"), false);
   other->dirtyVlanIs(1), other->dirtyLagIs(2), other->dirtyRouteIs(true);
   info->dirtyVlanIs(4);
   info->mergeWith(*other);
   EXPECT_TRUE(info->dirtyNatSrc(addr("10.0.0.1"))) << "merged members join as true";
   EXPECT_TRUE(info->dirtyVlan() == 5 && info->dirtyLag() == 2 && info->dirtyRoute());
   other->dirtyRouteIs(false);
   info->mergeWith(*other);
   EXPECT_TRUE(info->dirtyRoute()) << "merging never clears";
   info->clear();
   EXPECT_FALSE(info->isDirty());

   info->dirtyGroupSetIs(addr("239.1.1.1"), true), info->dirtyNatSrcIs(addr("10.0.0.1"), false);
   info->dirtyVlanIs(3), info->dirtyVlanPortIs(5), info->dirtyVlanGroupIs(0x20), info->dirtyLagIs(0xa);
   auto r = route();
   r->vlanFilterIs(1), r->vlanPortFilterIs(2), r->vlanGroupFilterIs(0x1f), r->lagFilterIs(4);
   EXPECT_EQ(info->mrouteDirtyInfoStr(r), "1 2 1f 4 3 5 20 1 0 a");
   auto b = boundaryMrouteFactory(r->key(), nullptr);
   b->lagFilterIs(1);
   EXPECT_FALSE(info->boundaryDirty(b)) << "group and source are not consulted";
   b->lagFilterIs(2);
   EXPECT_TRUE(info->boundaryDirty(b));
}

} // namespace
