// OifSets shared by value: one live set per set value in the registry,
// found before one is made, gone from it when the last route lets go.
#include "mroutelib/Mroute.h"
#include "mroutelib/testlib/Sets.h"

#include "flashlog/Capture.h"

#include <gtest/gtest.h>

namespace {

using namespace MrouteLib;
using MrouteLib::Test::setOfSize;

struct RegistryWatch : MrouteTableColl::Reactor {
   using MrouteTableColl::Reactor::Reactor;
   int changes = 0;
   void onOifSet(const PortVlanSet&) override { ++changes; }
};

TEST(OifSet, FoundByValueAndRemovedWhenTheLastRouteLetsGo) {
   auto coll = mrouteTableCollFactory("c");
   auto table = coll->vrfMrouteTableIs(L3::VrfName("default"));
   RegistryWatch watch(coll.ptr());
   auto r1 = table->mrouteIs(Routing::Multicast::Fib::makeRouteKeyVlanFloodset(1));
   auto r2 = table->mrouteIs(Routing::Multicast::Fib::makeRouteKeyVlanFloodset(2));
   r1->oifSetIs(oifSetFindOrMake(coll.ptr(), setOfSize(3)));
   EXPECT_EQ(watch.changes, 1);
   r2->oifSetIs(oifSetFindOrMake(coll.ptr(), setOfSize(3))); // unhashed on entry: found all the same
   EXPECT_EQ(r1->oifSet(), r2->oifSet());
   EXPECT_EQ(coll->oifSetSize(), 1u);
   EXPECT_EQ(coll->oifSet(setOfSize(3)).ptr(), r1->oifSet().ptr());

   // Same hash, another feature flag: a second set.
   PortVlanSet flagged = setOfSize(3);
   flagged.featureFlagIs(1);
   r2->frrOifSetIs(oifSetFindOrMake(coll.ptr(), flagged));
   EXPECT_EQ(coll->oifSetSize(), 2u);
   EXPECT_NE(r2->frrOifSet(), r2->oifSet());

   table->mrouteDel(r1->key());
   r1 = nullptr;
   EXPECT_EQ(coll->oifSetSize(), 2u) << "r2 still holds it";
   r2->oifSetIs(nullptr);
   EXPECT_EQ(coll->oifSetSize(), 1u);
   EXPECT_FALSE(coll->oifSetHas(setOfSize(3)));
   EXPECT_EQ(watch.changes, 3);
   table->mrouteDelAll();
   r2 = nullptr;
   EXPECT_EQ(coll->oifSetSize(), 0u);
}

TEST(OifSet, RegistryOperationsNotifyOnlyOnChange) {
   auto coll = mrouteTableCollFactory("c");
   RegistryWatch watch(coll.ptr());
   auto a = oifSetFindOrMake(coll.ptr(), setOfSize(1));
   auto b = oifSetFindOrMake(coll.ptr(), setOfSize(2));
   ASSERT_EQ(watch.changes, 2);
   coll->oifSetIs(setOfSize(1), OifSetPtr(a.ptr()));
   EXPECT_EQ(watch.changes, 2) << "the same pointer";
   coll->oifSetIs(setOfSize(1), OifSetPtr(b.ptr()));
   EXPECT_EQ(watch.changes, 3) << "another pointer";
   EXPECT_EQ(coll->oifSetDel(setOfSize(1)).ptr(), b.ptr());
   EXPECT_EQ(coll->oifSetDel(setOfSize(1)).ptr(), nullptr);
   EXPECT_EQ(watch.changes, 4) << "nothing removed, nobody told";
   a = nullptr; // its entry is gone already: removal by key finds none
   EXPECT_EQ(coll->oifSetSize(), 1u);
   coll->oifSetDelAll();
   EXPECT_EQ(coll->oifSetSize(), 0u);
   b = nullptr;
   EXPECT_EQ(watch.changes, 5);
}

TEST(OifSet, TracesItsLifeAndAnswersForItsSet) {
   auto coll = mrouteTableCollFactory("c");
   PortVlanSet s = setOfSize(1);
   s.toCpuPurposeIs(ToCpuPurpose(2));
   const std::string text = Gant::toText(s);
   Flashlog::Capture capture("MrouteLib=9");
   auto set = oifSetFactory(coll.ptr(), s);
   EXPECT_TRUE(set->initialized());
   EXPECT_TRUE(set->toCpu());
   EXPECT_TRUE(set->doCmpPortVlanSet(setOfSize(1)) == false);
   EXPECT_TRUE(set->doCmpPortVlanSet(s));
   EXPECT_EQ(set->mrouteTable(), coll.ptr());
   set = nullptr;
   EXPECT_EQ(capture.lines(), (std::vector<std::string>{"void MrouteLib::OifSet::handleInitialized() " + text,
                                                        "void MrouteLib::OifSet::handleDel() " + text}));
}

TEST(OifSetDeathTest, OneLiveSetPerValueAndOneInitialisation) {
   auto coll = mrouteTableCollFactory("c");
   auto set = oifSetFactory(coll.ptr(), setOfSize(2));
   EXPECT_DEATH(oifSetFactory(coll.ptr(), setOfSize(2)),
                "Assertion failed: !mrouteTable_->oifSetHas\\( portVlanSet\\(\\) \\)");
   EXPECT_DEATH(set->handleInitialized(), "Assertion failed: !initialized\\(\\)");
}

} // namespace
