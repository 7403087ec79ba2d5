#include "mroutelib/Small.h"

#include "gant/Codec.h"

#include <gtest/gtest.h>

namespace MrouteLib {
namespace {

using Routing::Multicast::Fib::makeRouteKeyVlanFloodset;

TEST(MrouteFailureReason, WordsExplanationAndHardwareFull) {
   struct Case {
      uint32_t value;
      const char* pretty;
      const char* explain;
      bool hwFailure;
   };
   const Case cases[] = {
       {0, "", "", false},
       // Bit 12 is written before bit 10.
       {0x1401, " MCDBFull vrfStatus not initialized BadAddr", ": replication table is full", true},
       // Bit 11 has no word and is no hardware-full failure.
       {0x800, "", "", false},
       // The first hardware-full bit explains, in the order 0, 3, 8, 16.
       {0x109, " MCDBFull NoFreeMcastId NoSpaceInTcamOrLem", ": replication table is full", true},
       {0x10108, " NoFreeMcastId NoSpaceInTcamOrLem NoMacTableSpace", ": multicast ids exhausted", true},
       {0x10100, " NoSpaceInTcamOrLem NoMacTableSpace", ": tcam/lem is full", true},
       {0x10000, " NoMacTableSpace", ": mac table is full", true},
       {0x2, " PortNotMapped", "", false},
       {0x20200, " NoRouteInfo NoRouteInfo", "", false},
       {0x0f031f0f,
        " MCDBFull PortNotMapped NoFeCard NoFreeMcastId NoSpaceInTcamOrLem NoRouteInfo vrfStatus not initialized"
        " BadAddr NoMacTableSpace NoRouteInfo BlockedTemporarily TimedOut NotInitialized InProgress",
        ": replication table is full", true},
       // Bits no name covers are silent.
       {0xf0fce0f0, "", "", false},
   };
   for (const Case& c : cases) {
      const MrouteFailureReason r(c.value);
      EXPECT_EQ(r.pretty(), c.pretty) << std::hex << c.value;
      EXPECT_EQ(r.logExplain(), c.explain) << std::hex << c.value;
      EXPECT_EQ(r.hwFailure(), c.hwFailure) << std::hex << c.value;
   }
}

TEST(MrouteFailureReason, ReflectionTextAndLog) {
   std::vector<std::string> names;
   for (const auto& a : MrouteFailureReason::gantTypeInfo().attrs) names.push_back(a.name);
   const std::vector<std::string> expected = {
       "value", "oifSetFailureMask", "routeFailureMask", "macTableFailureMask", "oifSetFailureHwFull",
       "oifSetFailureNotMapped", "oifSetFailureNoFeCard", "oifSetFailureMcastIdFull", "routeFailureHwFull",
       "routeFailureNoRouteInfo", "routeFailureBadAddr", "routeFailureRpaHwFull", "routeFailureVrfStatusNotInited",
       "macTableFailureHwFull", "macTableFailureNoRouteInfo", "blocked", "timeout", "notInited", "inProgress",
       "hwFailure", "logExplain", "pretty"};
   EXPECT_EQ(names, expected);

   MrouteFailureReason r(0x0a0b0c0d);
   EXPECT_EQ(Gant::attr(r, "oifSetFailureMask").as<uint8_t>(), 0x0d);
   EXPECT_EQ(Gant::attr(r, "routeFailureMask").as<uint8_t>(), 0x0c);
   EXPECT_EQ(Gant::attr(r, "macTableFailureMask").as<uint8_t>(), 0x0b);
   EXPECT_THROW(Gant::attrIs(r, "pretty", Gant::String("x")), Gant::UnsupportedOperation);
   Gant::attrIs(r, "routeFailureRpaHwFull", true);
   EXPECT_EQ(r.value(), 0x0a0b0c0du | 0x800);
   EXPECT_EQ(Gant::attr(r, "pretty").as<Gant::String>(), r.pretty());

   EXPECT_EQ(Gant::toText(MrouteFailureReason(0x1401)), "5121");
   EXPECT_EQ(Gant::fromText<MrouteFailureReason>("5121").value(), 0x1401u);
   Gant::LogWriter w;
   MrouteFailureReason(0x1401).gantLogWrite(w);
   EXPECT_EQ(w.data(), std::string("\0\0\x14\x01", 4));
}

TEST(LagOperation, MembersAndNonMember) {
   EXPECT_EQ(LagOperationInstance("chooseLagMember"), LagOperation::chooseLagMember);
   EXPECT_EQ(stringValue(LagOperationInstance(1u)), "expandLag");
   EXPECT_EQ(gantEnumInfo(LagOperation{}).nameOf(3), nullptr) << "3 is no member";
   EXPECT_THROW(LagOperationInstance("passlag"), Gant::ParseError);
}

TEST(RouteKeyInfo, OrderTextAndDefault) {
   const auto k10 = makeRouteKeyVlanFloodset(10), k20 = makeRouteKeyVlanFloodset(20);
   const RouteKeyInfo a(k10, 4094, L3::VrfName("red")), b(k20, 1, L3::VrfName("blue")),
       c(k10, 4094, L3::VrfName("z")), d(k10, 5, L3::VrfName("zz"));
   EXPECT_LT(a, b) << "the key decides first";
   EXPECT_LT(a, c) << "then the accepting VLAN, then the VRF's name";
   EXPECT_LT(d, a);
   EXPECT_NE(a, c);
   EXPECT_TRUE(!RouteKeyInfo());
   EXPECT_FALSE(!RouteKeyInfo(Routing::Multicast::Fib::invalidRouteKey(), 0, L3::VrfName("default")));

   const std::string text = Gant::toText(a);
   EXPECT_EQ(text, "Value('MrouteLib::RouteKeyInfo', ** {'key': " + Gant::toText(k10) +
                       ", 'acceptingVlanId': 4094, 'vrfName': 'red'})");
   EXPECT_EQ(Gant::fromText<RouteKeyInfo>(text), a);
}

TEST(PimEnabled, NameFromBackupAndVlans) {
   auto p = pimEnabledFactory("pim");
   p->pimVlanEnabledIs(10, true);
   p->nameIsFromBackup("restored");
   EXPECT_EQ(p->name(), "restored");
   EXPECT_TRUE(p->pimVlanEnabled(10));
   EXPECT_THROW(p->pimVlanEnabledIs(4095, true), Gant::RangeError);
}

} // namespace
} // namespace MrouteLib
