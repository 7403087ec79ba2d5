// The port/VLAN set as the registry sees it: its hash, equality, ordering
// and the texts traces and tools print.
#include "mroutelib/PortVlan.h"
#include "mroutelib/testlib/Sets.h"

#include <gtest/gtest.h>

namespace {

using namespace MrouteLib;
using MrouteLib::Test::eth;
using MrouteLib::Test::setOfSize;
using enum Routing::Multicast::Fib::RouteKeyType;

// An independent one-at-a-time hash over bytes listed by hand.
uint32_t oneAtATime(const std::vector<uint8_t>& bytes) {
   uint32_t h = 0;
   for (uint8_t b : bytes) h += b, h += h << 10, h ^= h >> 6;
   h += h << 3;
   h ^= h >> 11;
   return h + (h << 15);
}

PortVlan pv(unsigned port, uint32_t outLif = 10, uint8_t property = 0) { return PortVlan(eth(port), outLif, property); }
using S = PortVlanSet;
using Change = void (*)(S&);
S with(Change change) {
   S s = setOfSize(2);
   change(s);
   return s;
}

TEST(PortVlanSet, HashOverTheFixedByteOrderCachedButNeverZero) {
   ASSERT_EQ(oneAtATime({'a'}), 0xca2e9442u) << "the published value for \"a\"";
   // Ethernet3 is the word pair high 0x01000003, low 0; Ethernet3/1 has low 0x00800000.
   PortVlanSet s;
   s.portVlanIs(PortVlan(Pakto::IntfId("Ethernet3/1"), 4095, 3), false); // property and bool not hashed
   s.portVlanIs(pv(3, 100), true);
   s.natVlanIs(Bridging::VlanId(0x203), true);
   s.acceptingVlanIdIs(10);
   s.currentIifIs(Pakto::IntfId("Port-Channel2"));
   s.portVlanFrrIs(pv(3, 0x01020304), true);
   s.featureFlagIs(7), s.typeIs(mroute), s.fastdropIs(true), s.toCpuIs(true); // none of these hashed
   const uint32_t expected = oneAtATime({
       0, 0, 0, 0, 3, 0, 0, 1, 100, 0, 0, 0,        // Ethernet3 vlan 100
       0, 0, 0x80, 0, 3, 0, 0, 1, 0xff, 0x0f, 0, 0, // Ethernet3/1 out-LIF 4095
       0x03, 0x02, 10, 0,                           // NAT VLAN, accepting VLAN
       0, 0, 0, 0, 2, 0, 0, 2,                      // current incoming interface
       0, 0, 0, 0, 3, 0, 0, 1, 4, 3, 2, 1});        // FRR member
   EXPECT_EQ(s.hash(), expected);
   EXPECT_EQ(s.cachedHash(), 0u) << "hash() does not cache";
   EXPECT_EQ(s.saveHash(), expected);
   EXPECT_EQ(s.cachedHash(), expected);

   PortVlanSet empty;
   EXPECT_EQ(empty.saveHash(), 0u) << "zero bytes mixed into 0 leave 0";
   empty.portVlanIs(pv(1), true);
   EXPECT_EQ(empty.hash(), empty.computeHash()) << "0 means not computed: rehashed";
   PortVlanSet stale = setOfSize(2);
   stale.saveHash();
   stale.portVlanIs(pv(3), true);
   EXPECT_FALSE(stale == setOfSize(3)) << "the stale cached hash differs";
   stale.saveHash();
   EXPECT_TRUE(stale == setOfSize(3));
}

TEST(PortVlanSet, EqualityAndOrderingInTheirFixedOrders) {
   auto typed = [](auto t, bool ignore) {
      S s = setOfSize(2);
      s.typeIs(t), s.ignoreTypeIs(ignore);
      return s;
   };
   EXPECT_TRUE(typed(mroute, true) == typed(vlanFloodset, true));
   EXPECT_TRUE(typed(vlanFloodset, true) < typed(mroute, true)) << "ordering sees the type";
   EXPECT_FALSE(typed(mroute, false) == typed(vlanFloodset, false));
   EXPECT_FALSE(typed(mroute, true) == typed(mroute, false));
   // Fields outside the hash still tell sets apart; a member's property makes another member.
   const Change apart[] = {[](S& s) { s.featureFlagIs(1); }, [](S& s) { s.toCpuPurposeIs(ToCpuPurpose(2)); },
                           [](S& s) { s.fastdropIs(true); }, [](S& s) { s.portVlanIs(pv(1), false); },
                           [](S& s) { s.portVlanIs(pv(1, 10, 2), true); }};
   for (Change c : apart)
      EXPECT_FALSE(setOfSize(2) == with(c)) << with(c).pretty();
   EXPECT_EQ(setOfSize(2).hash(), with([](S& s) { s.portVlanIs(pv(1), false); }).hash());

   // Each pair orders first before second by one criterion, every later criterion saying the opposite.
   const std::pair<Change, Change> less[] = {
       {[](S& s) { s.portVlanDel(pv(2)); }, [](S& s) { s.portVlanIs(pv(0, 9), true); s.featureFlagIs(9); }},
       {[](S& s) { s.portVlanFrrIs(pv(1), true); s.fastdropIs(true); }, [](S& s) { s.portVlanFrrIs(pv(2), true); }},
       {[](S& s) { s.toCpuPurposeIs(ToCpuPurpose(1)); s.featureFlagIs(5); },
        [](S& s) { s.toCpuPurposeIs(ToCpuPurpose(2)); }},
       {[](S& s) { s.featureFlagIs(1); s.typeIs(mroute); }, [](S& s) { s.featureFlagIs(2); }},
       {[](S& s) { s.typeIs(ethGroup); s.acceptingVlanIdIs(9); }, [](S& s) { s.typeIs(mroute); }},
       {[](S& s) { s.acceptingVlanIdIs(1); s.natVlanIs(4, true); }, [](S& s) { s.acceptingVlanIdIs(2); }},
       {[](S& s) { s.natVlanIs(9, true); }, [](S& s) { s.natVlanIs(3, true); s.natVlanIs(4, true); }},
       {[](S& s) { s.natVlanIs(3, true); s.fastdropIs(true); }, [](S& s) { s.natVlanIs(4, false); }},
       {[](S& s) { s.natVlanIs(3, false); s.fastdropIs(true); }, [](S& s) { s.natVlanIs(3, true); }},
       {[](S& s) { s.currentIifIs(eth(9)); }, [](S& s) { s.fastdropIs(true); }},
       {[](S& s) { s.currentIifIs(eth(1)); s.ignoreTypeIs(true); }, [](S& s) { s.currentIifIs(eth(2)); }},
       {[](S&) {}, [](S& s) { s.ignoreTypeIs(true); }},
   };
   for (const auto& [first, second] : less)
      EXPECT_TRUE(with(first) < with(second) && !(with(second) < with(first))) << with(second).pretty();
   EXPECT_EQ(setOfSize(3).compare(setOfSize(3)), 0);
}

TEST(PortVlanSet, PrettyTextFormAndNoParser) {
   PortVlanSet s;
   for (uint32_t lif : {0u, 1u, 4094u, 4095u}) s.portVlanIs(pv(lif % 8 + 1, lif), true);
   s.acceptingVlanIdIs(20);
   EXPECT_EQ(s.pretty(), "4 PVs - acceptingVlanId: 20 hash: " + std::to_string(s.hash()) +
                             " outLif 0:Ethernet1 vlan 1:Ethernet2 vlan 4094:Ethernet7 outLif 4095:Ethernet8");
   s.featureFlagIs(16);
   std::ostringstream hex;
   hex << std::hex << "4 PVs - (0x10) acceptingVlanId: " << 20 << " hash: " << s.hash()
       << " outLif 0:Ethernet1 vlan 1:Ethernet2 vlan ffe:Ethernet7 outLif fff:Ethernet8";
   EXPECT_EQ(s.pretty(), hex.str()) << "hexadecimal stays on after the feature flag";
   PortVlanSet cpu = setOfSize(1);
   cpu.toCpuIs(true);
   cpu.currentIifIs(eth(7));
   cpu.portVlanFrrIs(pv(8, 5000), true);
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
   for (auto [lif, outLif] : {std::pair{0u, true}, {1u, false}, {4094u, false}, {4095u, true}, {0xffffffffu, true}})
      EXPECT_EQ(pv(1, lif).isOutLif(), outLif) << lif;
   PortVlan member = pv(1, 4095);
   auto rangeError = [](auto f) -> std::string {
      try { f(); } catch (const Gant::RangeError& e) { return e.what(); }
      return "accepted";
   };
   EXPECT_EQ(rangeError([&] { (void)member.vlanId(); }), "VlanId::value < 1 or > 4094 not allowed");
   EXPECT_EQ(rangeError([] { ToCpuPurpose(4); }), "ToCpuPurpose::value > 0x3 not allowed");
   member.vlanIdIs(Bridging::VlanId(30));
   EXPECT_EQ(member.outLif().value(), 30u);
   EXPECT_TRUE(PortPropertyMask(1).mlagPort() && !PortPropertyMask(1).tagOnEgress());
   PortVlanSet s;
   s.toCpuPurposeIs(ToCpuPurpose(3));
   s.toCpuIs(false);
   EXPECT_EQ(s.toCpuPurpose().value(), 2u) << "only the multicast bit clears";
   EXPECT_TRUE(s.toCpu());
}

} // namespace
