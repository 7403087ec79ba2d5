#include "mroutelib/Small.h"

#include "gant/Codec.h"

#include <gtest/gtest.h>

namespace MrouteLib {
namespace {

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

TEST(MrouteFailureReason, ReflectionAndText) {
   std::vector<std::string> names;
   for (const auto& a : MrouteFailureReason::gantTypeInfo().attrs) names.push_back(a.name);
   ASSERT_EQ(names.size(), 22u);
   EXPECT_EQ(std::vector<std::string>(names.begin(), names.begin() + 5),
             (std::vector<std::string>{"value", "oifSetFailureMask", "routeFailureMask", "macTableFailureMask",
                                       "oifSetFailureHwFull"}));
   EXPECT_EQ(std::vector<std::string>(names.end() - 4, names.end()),
             (std::vector<std::string>{"inProgress", "hwFailure", "logExplain", "pretty"}));
   const MrouteFailureReason r(0x0a0b0c0d);
   EXPECT_EQ(Gant::attr(r, "routeFailureMask").as<uint8_t>(), 0x0c);
   EXPECT_EQ(Gant::attr(r, "macTableFailureMask").as<uint8_t>(), 0x0b);
   EXPECT_EQ(Gant::toText(MrouteFailureReason(0x1401)), "5121");
   // Generated, but the edge the agents' logs meet: a number of no member.
   EXPECT_EQ(stringValue(LagOperationInstance(3u)), "3");
}

TEST(RouteKeyInfo, TextReadsBack) {
   const auto key = Routing::Multicast::Fib::makeRouteKeyVlanFloodset(10);
   const RouteKeyInfo info(key, 4094, L3::VrfName("red"));
   const std::string text = Gant::toText(info);
   EXPECT_EQ(text, "Value('MrouteLib::RouteKeyInfo', ** {'key': " + Gant::toText(key) +
                       ", 'acceptingVlanId': 4094, 'vrfName': 'red'})");
   EXPECT_EQ(Gant::fromText<RouteKeyInfo>(text), info);
}

} // namespace
} // namespace MrouteLib
