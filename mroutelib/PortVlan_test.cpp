// The port/VLAN set as the registry sees it: the hash over its fixed byte
// order, equality and ordering in their fixed orders, and the texts traces
// and tools print.
#include "mroutelib/PortVlan.h"
#include "mroutelib/testlib/Sets.h"

#include "gant/testlib/ValueContract.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace MrouteLib;
using MrouteLib::Test::eth;
using MrouteLib::Test::setOfSize;
using Routing::Multicast::Fib::RouteKeyType;

// An independent one-at-a-time hash over bytes listed by hand.
uint32_t oneAtATime(const std::vector<uint8_t>& bytes) {
   uint32_t h = 0;
   for (uint8_t b : bytes) {
      h += b;
      h += h << 10;
      h ^= h >> 6;
   }
   h += h << 3;
   h ^= h >> 11;
   h += h << 15;
   return h;
}

TEST(PortVlanSet, HashIsOneAtATimeOverTheFixedByteOrder) {
   ASSERT_EQ(oneAtATime({'a'}), 0xca2e9442u) << "the published value for \"a\"";
   // Ethernet3 is the word pair high 0x01000003, low 0; Ethernet3/1 has low 0x00800000.
   PortVlanSet s;
   s.portVlanIs(PortVlan(Pakto::IntfId("Ethernet3/1"), 4095, 3), false); // property and bool not hashed
   s.portVlanIs(PortVlan(eth(3), 100, 0), true);
   s.natVlanIs(Bridging::VlanId(0x203), true);
   s.acceptingVlanIdIs(10);
   s.currentIifIs(Pakto::IntfId("Port-Channel2"));
   s.portVlanFrrIs(PortVlan(eth(3), 0x01020304, 0), true);
   s.featureFlagIs(7); // none of these is hashed
   s.typeIs(RouteKeyType::mroute);
   s.fastdropIs(true);
   s.toCpuIs(true);
   const std::vector<uint8_t> bytes = {
       0, 0, 0, 0, 3, 0, 0, 1, 100, 0, 0, 0,            // Ethernet3 vlan 100
       0, 0, 0x80, 0, 3, 0, 0, 1, 0xff, 0x0f, 0, 0,     // Ethernet3/1 out-LIF 4095
       0x03, 0x02,                                      // NAT VLAN
       10, 0,                                           // accepting VLAN
       0, 0, 0, 0, 2, 0, 0, 2,                          // current incoming interface
       0, 0, 0, 0, 3, 0, 0, 1, 4, 3, 2, 1};             // FRR member
   EXPECT_EQ(s.computeHash(), oneAtATime(bytes));
   EXPECT_EQ(s.hash(), s.computeHash());
   EXPECT_EQ(s.cachedHash(), 0u) << "hash() does not cache";
   EXPECT_EQ(s.saveHash(), oneAtATime(bytes));
   EXPECT_EQ(s.cachedHash(), oneAtATime(bytes));
}

TEST(PortVlanSet, ACachedHashGoesStaleAndAZeroHashIsNeverCached) {
   PortVlanSet empty;
   EXPECT_EQ(empty.saveHash(), 0u) << "zero bytes mixed into 0 leave 0";
   empty.portVlanIs(PortVlan(eth(1), 10, 0), true);
   EXPECT_EQ(empty.hash(), empty.computeHash()) << "0 means not computed: rehashed";
   EXPECT_NE(empty.hash(), 0u);

   PortVlanSet saved = setOfSize(2);
   saved.saveHash();
   saved.portVlanIs(PortVlan(eth(3), 10, 0), true);
   PortVlanSet fresh = setOfSize(3);
   EXPECT_FALSE(saved == fresh) << "the stale cached hash differs";
   saved.saveHash();
   EXPECT_TRUE(saved == fresh);
   PortVlanSet copy = saved;
   EXPECT_EQ(copy.cachedHash(), saved.cachedHash());
}

TEST(PortVlanSet, EqualityTypeIgnoreTypeAndUnhashedFields) {
   auto typed = [](RouteKeyType t, bool ignore) {
      PortVlanSet s = setOfSize(2);
      s.typeIs(t);
      s.ignoreTypeIs(ignore);
      return s;
   };
   const PortVlanSet a = typed(RouteKeyType::mroute, true), b = typed(RouteKeyType::vlanFloodset, true);
   EXPECT_TRUE(a == b);
   EXPECT_FALSE(typed(RouteKeyType::mroute, false) == typed(RouteKeyType::vlanFloodset, false));
   EXPECT_FALSE(typed(RouteKeyType::mroute, true) == typed(RouteKeyType::mroute, false));
   EXPECT_TRUE(b < a) << "ordering still looks at the type";

   // Each field outside the hash still tells sets apart.
   std::vector<PortVlanSet> variants(6, setOfSize(2));
   variants[1].featureFlagIs(1);
   variants[2].toCpuPurposeIs(ToCpuPurpose(2));
   variants[3].fastdropIs(true);
   variants[4].portVlanIs(PortVlan(eth(1), 10, 0), false); // a member's bool
   variants[5].portVlanIs(PortVlan(eth(1), 10, 2), true);  // a member's property: another member
   for (std::size_t i = 1; i < variants.size(); ++i) {
      EXPECT_FALSE(variants[0] == variants[i]) << i;
      if (i < 5) {
         EXPECT_EQ(variants[0].hash(), variants[i].hash()) << i;
      }
   }
}

TEST(PortVlanSet, OrderingFollowsTheFixedOrderOfCriteria) {
   auto with = [](auto change) {
      PortVlanSet s = setOfSize(2);
      change(s);
      return s;
   };
   // Each pair: the first orders before the second, decided by one criterion
   // while every criterion after it would say the opposite.
   const std::vector<std::pair<PortVlanSet, PortVlanSet>> less = {
       {setOfSize(1), with([](PortVlanSet& s) { s.portVlanDelAll(); s.portVlanIs(PortVlan(eth(1), 10, 0), true); s.portVlanIs(PortVlan(eth(1), 11, 0), true); s.featureFlagIs(9); })},
       {with([](PortVlanSet& s) { s.portVlanFrrIs(PortVlan(eth(1), 10, 0), true); s.fastdropIs(true); }),
        with([](PortVlanSet& s) { s.portVlanFrrIs(PortVlan(eth(2), 10, 0), true); })},
       {with([](PortVlanSet& s) { s.toCpuPurposeIs(ToCpuPurpose(1)); s.featureFlagIs(5); }),
        with([](PortVlanSet& s) { s.toCpuPurposeIs(ToCpuPurpose(2)); })},
       {with([](PortVlanSet& s) { s.featureFlagIs(1); s.typeIs(RouteKeyType::mroute); }), with([](PortVlanSet& s) { s.featureFlagIs(2); })},
       {with([](PortVlanSet& s) { s.typeIs(RouteKeyType::ethGroup); s.acceptingVlanIdIs(9); }),
        with([](PortVlanSet& s) { s.typeIs(RouteKeyType::mroute); })},
       {with([](PortVlanSet& s) { s.acceptingVlanIdIs(1); s.natVlanIs(4, true); }), with([](PortVlanSet& s) { s.acceptingVlanIdIs(2); })},
       {with([](PortVlanSet& s) { s.natVlanIs(9, true); }), with([](PortVlanSet& s) { s.natVlanIs(3, true); s.natVlanIs(4, true); })},
       {with([](PortVlanSet& s) { s.natVlanIs(3, true); s.fastdropIs(true); }), with([](PortVlanSet& s) { s.natVlanIs(4, false); })},
       {with([](PortVlanSet& s) { s.natVlanIs(3, false); s.fastdropIs(true); }), with([](PortVlanSet& s) { s.natVlanIs(3, true); })},
       {with([](PortVlanSet& s) { s.currentIifIs(eth(9)); }), with([](PortVlanSet& s) { s.fastdropIs(true); })},
       {with([](PortVlanSet& s) { s.currentIifIs(eth(1)); s.ignoreTypeIs(true); }), with([](PortVlanSet& s) { s.currentIifIs(eth(2)); })},
       {with([](PortVlanSet&) {}), with([](PortVlanSet& s) { s.ignoreTypeIs(true); })},
   };
   for (std::size_t i = 0; i < less.size(); ++i) {
      EXPECT_TRUE(less[i].first < less[i].second) << i;
      EXPECT_FALSE(less[i].second < less[i].first) << i;
   }
   EXPECT_EQ(setOfSize(3).compare(setOfSize(3)), 0);
}

TEST(PortVlanSet, PrettyTextFormAndNoParser) {
   PortVlanSet s;
   s.portVlanIs(PortVlan(eth(1), 0, 0), true);
   s.portVlanIs(PortVlan(eth(2), 1, 0), true);
   s.portVlanIs(PortVlan(eth(3), 4094, 0), true);
   s.portVlanIs(PortVlan(eth(4), 4095, 0), true);
   s.acceptingVlanIdIs(20);
   const std::string members = " outLif 0:Ethernet1 vlan 1:Ethernet2 vlan 4094:Ethernet3 outLif 4095:Ethernet4";
   EXPECT_EQ(s.pretty(), "4 PVs - acceptingVlanId: 20 hash: " + std::to_string(s.hash()) + members);
   s.featureFlagIs(16);
   std::ostringstream hex;
   hex << std::hex << "4 PVs - (0x10) acceptingVlanId: " << 20 << " hash: " << s.hash() << " outLif 0:Ethernet1 vlan 1:Ethernet2 vlan ffe:Ethernet3 outLif fff:Ethernet4";
   EXPECT_EQ(s.pretty(), hex.str()) << "hexadecimal stays on after the feature flag";
   PortVlanSet cpu = setOfSize(1);
   cpu.toCpuIs(true);
   cpu.currentIifIs(eth(7));
   cpu.portVlanFrrIs(PortVlan(eth(8), 5000, 0), true);
   EXPECT_EQ(cpu.pretty(), "1 PVs - (Cpu ) acceptingVlanId: 0 hash: " + std::to_string(cpu.hash()) +
                               " vlan 10:Ethernet1 currentIif: Ethernet7 outLif 5000:Ethernet8");

   EXPECT_EQ(Gant::toText(cpu),
             "Value('MrouteLib::PortVlanSet', ** {'portVlan': None, 'toCpuPurpose': Value('MrouteLib::ToCpuPurpose', "
             "** {'toCpuMcast': True, 'toCpuVxlan': False}), 'featureFlag': 0, 'cachedHash': 0, 'type': "
             "'unknownRouteKeyType', 'acceptingVlanId': 0, 'natVlan': None, 'fastdrop': False, 'currentIif': "
             "Ethernet7, 'portVlanFrr': None, 'ignoreType': False})");
   EXPECT_DEATH(Gant::fromText<PortVlanSet>("None"),
                "Assertion failed: !\"No String constructor for PortVlanSet - has collection\"");
}

TEST(PortVlanSet, MembersAndPurposes) {
   // Out-LIF or VLAN, by an unsigned comparison that makes 0 an out-LIF.
   for (auto [lif, outLif] : std::vector<std::pair<uint32_t, bool>>{{0, true}, {1, false}, {4094, false}, {4095, true}, {0xffffffff, true}})
      EXPECT_EQ(PortVlan(eth(1), lif, 0).isOutLif(), outLif) << lif;
   PortVlan pv(eth(1), 4095, 0);
   EXPECT_THROW({
      try {
         (void)pv.vlanId();
      } catch (const Gant::RangeError& e) {
         EXPECT_STREQ(e.what(), "VlanId::value < 1 or > 4094 not allowed");
         throw;
      }
   }, Gant::RangeError);
   pv.vlanIdIs(Bridging::VlanId(30));
   EXPECT_EQ(pv.outLif().value(), 30u);

   PortProperty p;
   p.tagOnEgressIs(true);
   p.mlagPortIs(true);
   p.mlagPortIs(false);
   EXPECT_EQ(p.value(), 2u);
   EXPECT_TRUE(p.isTagOnEgress() && !p.isMlagPort());
   EXPECT_EQ(Gant::toText(p), "2");
   EXPECT_TRUE(PortPropertyMask(3).mlagPort() && !PortPropertyMask(2).mlagPort());

   PortVlanSet s;
   s.toCpuPurposeIs(ToCpuPurpose(3));
   s.toCpuIs(false);
   EXPECT_EQ(s.toCpuPurpose().value(), 2u) << "only the multicast bit clears";
   EXPECT_TRUE(s.toCpu());
   try {
      ToCpuPurpose(4);
      ADD_FAILURE() << "4 accepted";
   } catch (const Gant::RangeError& e) {
      EXPECT_STREQ(e.what(), "ToCpuPurpose::value > 0x3 not allowed");
   }
}

} // namespace

namespace Gant::Test {
template <>
struct ValueSamples<MrouteLib::PortVlan> : Samples<MrouteLib::PortVlan> {
   static std::vector<MrouteLib::PortVlan> distinct() {
      using MrouteLib::PortVlan;
      return {PortVlan(eth(2), 4000, 3), PortVlan(eth(10), 0, 1), PortVlan(eth(10), 1, 0), PortVlan(eth(10), 1, 2),
              PortVlan(Pakto::IntfId("Port-Channel1"), 7, 0)};
   }
   static std::vector<std::pair<MrouteLib::PortVlan, std::string>> texts() {
      return {{MrouteLib::PortVlan(eth(3), 100, 2),
               "Value('MrouteLib::PortVlan', ** {'port': Ethernet3, 'outLif': 100, 'portProperty': 2})"}};
   }
};
INSTANTIATE_TYPED_TEST_SUITE_P(PortVlan, ValueContract, ::testing::Types<MrouteLib::PortVlan>);
} // namespace Gant::Test
