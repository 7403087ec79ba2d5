// Routes, boundary routes and their table: fastdrop members and the sums
// kept by delta, the VLAN filter summary, and static NAT records.
#include "mroutelib/Mroute.h"
#include "mroutelib/StaticNat.h"
#include "mroutelib/testlib/Sets.h"

#include "flashlog/Capture.h"

#include <gtest/gtest.h>

namespace {

using namespace MrouteLib;
using MrouteLib::Test::setOfSize;
using Routing::Multicast::Fib::makeRouteKeyVlanFloodset;

struct FastdropWatch : Mroute::Reactor {
   using Mroute::Reactor::Reactor;
   std::vector<unsigned> vlans;
   void onFastdrop(const Bridging::VlanId& v) override { vlans.push_back(v.value()); }
};

class MrouteTest : public ::testing::Test {
 protected:
   Gant::Ptr<MrouteTableColl> coll = mrouteTableCollFactory("c");
   Gant::Ptr<MrouteTable> table = coll->vrfMrouteTableIs(L3::VrfName("default"));
   // Held here too, so that no set's own traces mix with the routes'.
   std::vector<Gant::Ptr<OifSet>> held;
   Gant::Ptr<OifSet> set(unsigned n) { return held.emplace_back(oifSetFindOrMake(coll.ptr(), setOfSize(n))); }
};

TEST_F(MrouteTest, FastdropMembersRunTheHandlerBeforeTheObservers) {
   auto r = table->mrouteIs(makeRouteKeyVlanFloodset(1));
   FastdropWatch watch(r.ptr());
   const std::vector<std::string> handled = {"void MrouteLib::Mroute::handleFastdrop(Bridging::VlanId)",
                                             "void MrouteLib::Mroute::handleFastdrop()"};
   struct Step {
      unsigned vlan;
      Gant::Ptr<OifSet> oifSet;
      bool changes;
      uint16_t count;
   };
   const auto a = set(1), b = set(2);
   const std::vector<Step> steps = {
       {5, nullptr, false, 0}, // null for a non-member: nothing at all
       {5, a, true, 1},        {5, a, false, 1}, {5, b, true, 1}, {6, a, true, 2},
       {5, nullptr, true, 1}, // null removes
   };
   for (const Step& s : steps) {
      Flashlog::Capture capture("MrouteLib=9");
      const std::size_t heard = watch.vlans.size();
      r->fastdropDirtyIs(false);
      r->fastdropIs(s.vlan, s.oifSet);
      EXPECT_EQ(capture.lines(), s.changes ? handled : std::vector<std::string>{}) << s.vlan;
      EXPECT_EQ(watch.vlans.size(), heard + s.changes);
      EXPECT_EQ(r->fastdropDirty(), s.changes);
      EXPECT_EQ(r->fastdropCount(), s.count);
      EXPECT_EQ(table->fastdropCount(), s.count);
   }
   EXPECT_EQ(r->fastdrop(6), a);
   EXPECT_EQ(r->fastdrop(5), nullptr);
   r->fastdropDel(6);
   EXPECT_EQ(table->fastdropCount(), 0u);
   EXPECT_EQ(watch.vlans, (std::vector<unsigned>{5, 5, 6, 5, 6}));
}

TEST_F(MrouteTest, TableSumsFollowRoutesAndTheirDeletion) {
   auto r1 = table->mrouteIs(makeRouteKeyVlanFloodset(1));
   auto r2 = table->mrouteIs(makeRouteKeyVlanFloodset(2));
   for (unsigned v : {1, 2}) r1->fastdropIs(v, set(v));
   for (unsigned v : {1, 2, 3}) r2->fastdropIs(v, set(v));
   r2->rpfFailureCountIs(3, 9);
   EXPECT_EQ(table->fastdropCount(), 5u);
   {
      // Clearing is silent per member and runs the handler once.
      FastdropWatch watch(r2.ptr());
      Flashlog::Capture capture("MrouteLib=9");
      r2->doClearFastdrop();
      EXPECT_TRUE(watch.vlans.empty());
      EXPECT_EQ(capture.lines(), (std::vector<std::string>{"void MrouteLib::Mroute::doClearFastdrop()",
                                                           "void MrouteLib::Mroute::handleFastdrop()"}));
      EXPECT_EQ(r2->rpfFailureCountSize(), 0u);
      EXPECT_EQ(table->fastdropCount(), 2u);
   }
   for (unsigned v : {1, 2, 3}) r2->fastdropIs(v, set(v));
   Flashlog::Capture capture("MrouteLib=9");
   table->mrouteDel(r1->key());
   r1 = nullptr;
   EXPECT_EQ(capture.lines().front(), "void MrouteLib::Mroute::handleDel()");
   EXPECT_EQ(table->fastdropCount(), 3u);
}

TEST_F(MrouteTest, VrfVlanFilterCountsEachBit) {
   table->doUpdateVrfVlanFilter(0x1, 0x1);
   table->doUpdateVrfVlanFilter(0x1, 0x1);
   EXPECT_EQ(table->vlanFilter(), 0x1u);
   EXPECT_EQ(table->vlanFilterCounter(0), 2u);
   {
      Flashlog::Capture capture("MrouteLib=9");
      table->doUpdateVrfVlanFilter(0x0, 0x1);
      EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                     "void MrouteLib::MrouteTable::doUpdateVrfVlanFilter(U32, U32) ( 0, 1 )",
                                     "  Decrementing count for bit 0 now: 1", "  oldVlanFilter: 1",
                                     "  newVlanFilter: 1"}));
   }
   EXPECT_EQ(table->vlanFilter(), 0x1u);
   table->doUpdateVrfVlanFilter(0x0, 0x1);
   EXPECT_EQ(table->vlanFilter(), 0x0u);
   EXPECT_EQ(table->vlanFilterCounter(0), 0u);
   {
      Flashlog::Capture capture("MrouteLib=9");
      table->doUpdateVrfVlanFilter(0xabc, 0);
      EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                     "void MrouteLib::MrouteTable::doUpdateVrfVlanFilter(U32, U32) ( abc, 0 )",
                                     "   No change"}));
   }
   // Only the changed bits count, whatever the new filter says of the others.
   table->doUpdateVrfVlanFilter(0xffffffff, 0x80000000);
   EXPECT_EQ(table->vlanFilter(), 0x80000000u);
   EXPECT_EQ(table->vlanFilterCounter(31), 1u);
   for (uint8_t b = 0; b < 31; ++b) EXPECT_EQ(table->vlanFilterCounter(b), 0u) << unsigned{b};
   {
      Flashlog::Capture capture("MrouteLib=8");
      table->doUpdateVrfVlanFilter(0x80000000, 0x80000000);
      EXPECT_EQ(capture.lines(), (std::vector<std::string>{"  Incrementing count for bit 31 now: 2",
                                                           "  oldVlanFilter: 80000000", "  newVlanFilter: 80000000"}));
   }
}

TEST_F(MrouteTest, BoundaryRoutesClearLoudlyAndKeepTheirShareWhenDeleted) {
   auto b = table->boundaryMrouteIs(makeRouteKeyVlanFloodset(1));
   struct Watch : BoundaryMroute::Reactor {
      using BoundaryMroute::Reactor::Reactor;
      int heard = 0;
      void onFastdrop(const Bridging::VlanId&) override { ++heard; }
   } watch(b.ptr());
   for (unsigned v : {1, 2, 3}) b->fastdropIs(v, set(v));
   b->fastdropIs(4, nullptr);
   EXPECT_EQ(table->boundaryFastdropCount(), 3u);
   EXPECT_EQ(table->fastdropCount(), 0u) << "kept apart from the routes' sum";
   watch.heard = 0;
   {
      Flashlog::Capture capture("MrouteLib=9");
      b->doClearFastdrop();
      const auto lines = capture.lines();
      EXPECT_EQ(std::count(lines.begin(), lines.end(), "void MrouteLib::BoundaryMroute::handleFastdrop()"), 4);
      EXPECT_EQ(lines[1], "void MrouteLib::BoundaryMroute::handleFastdrop()");
      EXPECT_EQ(lines[2], "fastdropCount: 3, total fastdrops: 2");
   }
   EXPECT_EQ(watch.heard, 3);
   EXPECT_EQ(b->fastdropCount(), 0u);
   EXPECT_EQ(table->boundaryFastdropCount(), 0u);

   for (unsigned v : {1, 2}) b->fastdropIs(v, set(v));
   table->boundaryMrouteDel(b->key());
   b = nullptr;
   EXPECT_EQ(table->boundaryFastdropCount(), 2u) << "no deletion handler: the share stays";

   auto orphan = boundaryMrouteFactory(makeRouteKeyVlanFloodset(9), nullptr);
   const auto one = set(1);
   Flashlog::Capture capture("MrouteLib=9");
   orphan->fastdropIs(1, one);
   EXPECT_EQ(capture.lines(), (std::vector<std::string>{"void MrouteLib::BoundaryMroute::handleFastdrop()",
                                                        "mrt is NULL"}));
   EXPECT_EQ(orphan->fastdropCount(), 0u);
}

TEST_F(MrouteTest, OwnedChildrenAndTheTableInitialisesOnce) {
   auto info = table->dirtyInfoIs();
   EXPECT_EQ(table->dirtyInfoIs(), info);
   EXPECT_EQ(info->parent(), table.ptr());
   table->dirtyInfoDel();
   EXPECT_EQ(table->dirtyInfo(), nullptr);
   EXPECT_NE(table->boundaryDirtyInfoIs(), nullptr);
   auto l2 = coll->l2FloodsetTableIs(L3::VrfName("l2"));
   EXPECT_EQ(coll->l2FloodsetTableIs(L3::VrfName("other")), l2);
   coll->l2FloodsetTableDel();
   EXPECT_EQ(coll->l2FloodsetTable(), nullptr);
   EXPECT_EQ(table->af(), Pakto::AddressFamily::ipv4);
   table->initializedIs(true);
   EXPECT_DEATH(table->handleInitialized(), "Assertion failed: !initialized\\(\\)");
}

TEST(StaticNat, SilentOnAnEqualValueAndNotWhenEmpty) {
   auto nat = staticNatInfoFactory();
   EXPECT_EQ(nat->name(), "");
   struct Watch : StaticNatInfo::Reactor {
      using StaticNatInfo::Reactor::Reactor;
      int heard = 0;
      void onIpInfo(const Pakto::IpGenAddr&) override { ++heard; }
   } watch(nat.ptr());
   StaticNatIpInfo info;
   EXPECT_TRUE(!info);
   info.vlanIs(10, true);
   EXPECT_FALSE(!info);
   const auto addr = Gant::fromText<Pakto::IpGenAddr>("10.0.0.1");
   nat->ipInfoIs(addr, info);
   nat->ipInfoIs(addr, info);
   EXPECT_EQ(watch.heard, 1);
   info.vlanIs(11, false);
   nat->ipInfoIs(addr, info);
   EXPECT_EQ(watch.heard, 2);
   EXPECT_EQ(Gant::toText(info), "None");
   EXPECT_DEATH(Gant::fromText<StaticNatIpInfo>("None"),
                "Assertion failed: !\"No String constructor for StaticNatIpInfo - has collection\"");
}

} // namespace
