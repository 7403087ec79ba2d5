// The dirty record: which routes a pass reprograms, by masks, then group
// and NAT source, and how records merge.
#include "mroutelib/Mroute.h"

#include <gtest/gtest.h>

namespace {

using namespace MrouteLib;

Pakto::IpGenAddr addr(const char* text) { return Gant::fromText<Pakto::IpGenAddr>(text); }

Gant::Ptr<Mroute> route(const char* s, const char* g) {
   return mrouteFactory(Routing::Multicast::Fib::IpGenRouteKey(Gant::fromText<Pakto::IpGenPrefix>(s),
                                                               Gant::fromText<Pakto::IpGenPrefix>(g)),
                        nullptr);
}

TEST(DirtyInfo, RouteTestsInTheirOrder) {
   struct Case {
      const char* what;
      void (*record)(DirtyInfo&);
      void (*routeIs)(Mroute&);
      bool dirty, l2Dirty;
   };
   const std::vector<Case> cases = {
       {"clean", [](DirtyInfo&) {}, [](Mroute&) {}, false, false},
       {"own flag only", [](DirtyInfo&) {}, [](Mroute& r) { r.dirtyIs(true); }, true, false},
       {"dirtyRoute is the caller's test", [](DirtyInfo& d) { d.dirtyRouteIs(true); }, [](Mroute&) {}, false, false},
       {"vlan", [](DirtyInfo& d) { d.dirtyVlanIs(6); }, [](Mroute& r) { r.vlanFilterIs(2); }, true, true},
       {"vlan apart", [](DirtyInfo& d) { d.dirtyVlanIs(4); }, [](Mroute& r) { r.vlanFilterIs(2); }, false, false},
       {"vlan port", [](DirtyInfo& d) { d.dirtyVlanPortIs(1); }, [](Mroute& r) { r.vlanPortFilterIs(1); }, true, true},
       {"vlan group, high word", [](DirtyInfo& d) { d.dirtyVlanGroupIs(1ull << 40); },
        [](Mroute& r) { r.vlanGroupFilterIs(1ull << 40); }, true, true},
       {"lag", [](DirtyInfo& d) { d.dirtyLagIs(8); }, [](Mroute& r) { r.lagFilterIs(9); }, true, true},
       {"group true", [](DirtyInfo& d) { d.dirtyGroupSetIs(addr("239.1.1.1"), true); }, [](Mroute&) {}, true, true},
       {"group false", [](DirtyInfo& d) { d.dirtyGroupSetIs(addr("239.1.1.1"), false); }, [](Mroute&) {}, false, false},
       {"another group", [](DirtyInfo& d) { d.dirtyGroupSetIs(addr("239.1.1.2"), true); }, [](Mroute&) {}, false, false},
       {"source true", [](DirtyInfo& d) { d.dirtyNatSrcIs(addr("10.0.0.1"), true); }, [](Mroute&) {}, true, true},
       {"source is not a group", [](DirtyInfo& d) { d.dirtyGroupSetIs(addr("10.0.0.1"), true); }, [](Mroute&) {}, false, false},
   };
   for (const Case& c : cases) {
      auto info = dirtyInfoFactory();
      auto r = route("10.0.0.1/32", "239.1.1.1/32");
      c.record(*info);
      c.routeIs(*r);
      EXPECT_EQ(info->mrouteDirty(Gant::PtrConst<Mroute>(r)), c.dirty) << c.what;
      EXPECT_EQ(info->mrouteL2Dirty(Gant::PtrConst<Mroute>(r)), c.l2Dirty) << c.what;
   }
}

TEST(DirtyInfo, IsDirtyMergeAndClear) {
   auto info = dirtyInfoFactory();
   EXPECT_FALSE(info->isDirty());
   info->dirtyGroupSetIs(addr("239.1.1.1"), false);
   EXPECT_TRUE(info->isDirty()) << "any member counts, whatever its bool";
   auto other = dirtyInfoFactory();
   other->dirtyNatSrcIs(addr("10.0.0.1"), false);
   other->dirtyVlanIs(1);
   other->dirtyLagIs(2);
   other->dirtyRouteIs(true);
   info->dirtyVlanIs(4);
   info->mergeWith(*other);
   EXPECT_TRUE(info->dirtyNatSrc(addr("10.0.0.1"))) << "merged members join as true";
   EXPECT_EQ(info->dirtyVlan(), 5u);
   EXPECT_EQ(info->dirtyLag(), 2u);
   EXPECT_TRUE(info->dirtyRoute());
   other->dirtyRouteIs(false);
   info->mergeWith(*other);
   EXPECT_TRUE(info->dirtyRoute()) << "merging never clears";
   struct Watch : DirtyInfo::Reactor {
      using DirtyInfo::Reactor::Reactor;
      int removed = 0;
      void onDirtyGroupSet(const Pakto::IpGenAddr&) override { ++removed; }
      void onDirtyNatSrc(const Pakto::IpGenAddr&) override { ++removed; }
   } watch(info.ptr());
   info->clear();
   EXPECT_FALSE(info->isDirty());
   EXPECT_EQ(watch.removed, 2);
}

TEST(DirtyInfo, BoundaryRoutesAndTheTraceString) {
   auto info = dirtyInfoFactory();
   info->dirtyGroupSetIs(addr("239.1.1.1"), true);
   info->dirtyNatSrcIs(addr("10.0.0.1"), true);
   auto b = boundaryMrouteFactory(Routing::Multicast::Fib::IpGenRouteKey(
                                      Gant::fromText<Pakto::IpGenPrefix>("10.0.0.1/32"),
                                      Gant::fromText<Pakto::IpGenPrefix>("239.1.1.1/32")),
                                  nullptr);
   EXPECT_FALSE(info->boundaryDirty(b)) << "group and source are not consulted";
   b->lagFilterIs(1);
   info->dirtyLagIs(1);
   EXPECT_TRUE(info->boundaryDirty(b));

   auto clean = dirtyInfoFactory();
   clean->dirtyVlanIs(3);
   auto r = route("10.0.0.2/32", "239.1.1.2/32");
   r->vlanFilterIs(1);
   r->lagFilterIs(4);
   EXPECT_EQ(clean->mrouteDirtyInfoStr(r), "1 0 0 4 3 0 0 0 0 0");
   r->vlanGroupFilterIs(0x1f);
   EXPECT_EQ(info->mrouteDirtyInfoStr(route("10.0.0.1/32", "239.1.1.1/32")), "0 0 0 0 0 0 0 1 1 1");
   EXPECT_EQ(clean->mrouteDirtyInfoStr(r), "1 0 1f 4 3 0 0 0 0 0");
}

} // namespace
