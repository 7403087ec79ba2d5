// Routes, boundary routes, their table and the OifSet registry: what the
// model test does not see (traces, notifications, assertions, registry calls).
#include "mroutelib/Mroute.h"
#include "mroutelib/StaticNat.h"
#include "mroutelib/testlib/Sets.h"

#include "flashlog/Capture.h"

#include <gtest/gtest.h>

namespace {

using namespace MrouteLib;
using MrouteLib::Test::setOfSize;
using Routing::Multicast::Fib::makeRouteKeyVlanFloodset;
using Lines = std::vector<std::string>;

// Heard fastdrop VLANs, or 0 for a registry change.
template <class Entity>
struct Watch : Entity::Reactor {
   using Entity::Reactor::Reactor;
   std::vector<unsigned> heard;
   virtual void onFastdrop(const Bridging::VlanId& v) { heard.push_back(v.value()); }
   virtual void onOifSet(const PortVlanSet&) { heard.push_back(0); }
};

struct MrouteTest : ::testing::Test {
   Gant::Ptr<MrouteTableColl> coll = mrouteTableCollFactory("c");
   Gant::Ptr<MrouteTable> table = coll->vrfMrouteTableIs(L3::VrfName("default"));
   const Gant::Ptr<OifSet> a = oifSetFindOrMake(coll.ptr(), setOfSize(1));
   const Gant::Ptr<OifSet> b = oifSetFindOrMake(coll.ptr(), setOfSize(2));
   Flashlog::Capture capture{"MrouteLib=9"};
   Lines traced() {
      Lines lines = capture.lines();
      capture.clear();
      return lines;
   }
};

TEST_F(MrouteTest, FastdropMembersRunTheHandlerBeforeTheObserversAndClearSilently) {
   auto r = table->mrouteIs(makeRouteKeyVlanFloodset(1));
   Watch<Mroute> watch(r.ptr());
   const Lines handled = {"void MrouteLib::Mroute::handleFastdrop(Bridging::VlanId)",
                          "void MrouteLib::Mroute::handleFastdrop()"};
   // Null for a non-member does nothing at all; null for a member removes it.
   for (auto [vlan, oifSet, changes] : {std::tuple{5u, Gant::Ptr<OifSet>(), false}, {5u, a, true}, {5u, a, false},
                                        {5u, b, true}, {6u, a, true}, {5u, nullptr, true}}) {
      r->fastdropDirtyIs(false), traced();
      r->fastdropIs(vlan, oifSet);
      EXPECT_EQ(traced(), changes ? handled : Lines{}) << vlan;
      EXPECT_EQ(r->fastdropDirty(), changes);
   }
   r->rpfFailureCountIs(3, 9);
   r->doClearFastdrop();
   EXPECT_EQ(watch.heard, (std::vector<unsigned>{5, 5, 6, 5})) << "clearing is silent per member";
   EXPECT_EQ(r->rpfFailureCountSize(), 0u);
   watch.notifierIs(nullptr), table->mrouteDel(r->key()), r = nullptr;
   const std::string clear = "void MrouteLib::Mroute::doClearFastdrop()";
   EXPECT_EQ(traced(), (Lines{clear, handled[1], "void MrouteLib::Mroute::handleDel()", clear, handled[1]}));
}

TEST_F(MrouteTest, VrfVlanFilterTraces) {
   table->doUpdateVrfVlanFilter(0x1, 0x1), traced();
   for (auto [filter, changed] : {std::pair{0x1u, 0x1u}, {0x0u, 0x1u}, {0xabcu, 0x0u}})
      table->doUpdateVrfVlanFilter(filter, changed);
   const std::string call = "void MrouteLib::MrouteTable::doUpdateVrfVlanFilter(U32, U32) ";
   EXPECT_EQ(traced(),
             (Lines{call + "( 1, 1 )", "  Incrementing count for bit 0 now: 2", "  oldVlanFilter: 1",
                    "  newVlanFilter: 1", call + "( 0, 1 )", "  Decrementing count for bit 0 now: 1",
                    "  oldVlanFilter: 1", "  newVlanFilter: 1", call + "( abc, 0 )", "   No change"}));
}

TEST_F(MrouteTest, BoundaryRoutesClearLoudlyAndNeedTheirTable) {
   auto r = table->boundaryMrouteIs(makeRouteKeyVlanFloodset(1));
   for (unsigned v : {1, 2, 3}) r->fastdropIs(v, a);
   Watch<BoundaryMroute> watch(r.ptr());
   traced(), r->doClearFastdrop();
   const Lines lines = traced();
   EXPECT_EQ(std::count(lines.begin(), lines.end(), "void MrouteLib::BoundaryMroute::handleFastdrop()"), 4);
   EXPECT_EQ(lines[2], "fastdropCount: 3, total fastdrops: 2");
   EXPECT_EQ(watch.heard, (std::vector<unsigned>{1, 2, 3}));
   boundaryMrouteFactory(makeRouteKeyVlanFloodset(9), nullptr)->fastdropIs(1, a);
   EXPECT_EQ(traced(), (Lines{"void MrouteLib::BoundaryMroute::handleFastdrop()", "mrt is NULL"}));
}

TEST_F(MrouteTest, RegistryTellsOnlyOfChangesAndOwnedThingsAreMadeOnce) {
   Watch<MrouteTableColl> watch(coll.ptr());
   PortVlanSet s = setOfSize(3);
   s.toCpuPurposeIs(ToCpuPurpose(2));
   auto set = oifSetFindOrMake(coll.ptr(), s);
   EXPECT_EQ(oifSetFindOrMake(coll.ptr(), s), set) << "found by value, unhashed";
   coll->oifSetIs(s, OifSetPtr(set.ptr()));                  // the same pointer: silent
   EXPECT_EQ(coll->oifSetDel(setOfSize(9)).ptr(), nullptr); // nothing removed: silent
   coll->oifSetIs(setOfSize(1), OifSetPtr(set.ptr()));
   EXPECT_EQ(coll->oifSetDel(setOfSize(2)).ptr(), b.ptr());
   EXPECT_EQ(watch.heard.size(), 3u);
   set = nullptr;
   const std::string text = Gant::toText(s);
   EXPECT_EQ(traced(), (Lines{"void MrouteLib::OifSet::handleInitialized() " + text,
                              "void MrouteLib::OifSet::handleDel() " + text}));
   EXPECT_DEATH(oifSetFactory(coll.ptr(), setOfSize(1)),
                "Assertion failed: !mrouteTable_->oifSetHas\\( portVlanSet\\(\\) \\)");
   EXPECT_DEATH(a->handleInitialized(), "Assertion failed: !initialized\\(\\)");
   table->initializedIs(true);
   EXPECT_DEATH(table->handleInitialized(), "Assertion failed: !initialized\\(\\)");
   EXPECT_DEATH(Gant::fromText<StaticNatIpInfo>("None"),
                "Assertion failed: !\"No String constructor for StaticNatIpInfo - has collection\"");
   EXPECT_EQ(Gant::toText(StaticNatIpInfo()), "None");

   EXPECT_EQ(table->dirtyInfoIs(), table->dirtyInfoIs());
   EXPECT_EQ(table->dirtyInfo()->parent(), table.ptr());
   EXPECT_EQ(coll->l2FloodsetTableIs(L3::VrfName("l2")), coll->l2FloodsetTableIs(L3::VrfName("other")));
   coll->l2FloodsetTableDel();
   EXPECT_EQ(coll->l2FloodsetTable(), nullptr);
}

} // namespace
