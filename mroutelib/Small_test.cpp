#include "mroutelib/Small.h"

#include <gtest/gtest.h>

namespace {

using MrouteLib::MrouteFailureReason;

TEST(MrouteFailureReason, WordsExplanationAndHardwareFull) {
   const std::tuple<uint32_t, const char*, const char*> cases[] = {
       {0, "", ""},
       // Bit 12 is written before bit 10, bit 11 not at all; the first of bits 0, 3, 8, 16 explains.
       {0x1401, " MCDBFull vrfStatus not initialized BadAddr", ": replication table is full"},
       {0x800, "", ""},
       {0x109, " MCDBFull NoFreeMcastId NoSpaceInTcamOrLem", ": replication table is full"},
       {0x10108, " NoFreeMcastId NoSpaceInTcamOrLem NoMacTableSpace", ": multicast ids exhausted"},
       {0x10100, " NoSpaceInTcamOrLem NoMacTableSpace", ": tcam/lem is full"},
       {0x10000, " NoMacTableSpace", ": mac table is full"},
       {0x0f031f0f, " MCDBFull PortNotMapped NoFeCard NoFreeMcastId NoSpaceInTcamOrLem NoRouteInfo "
                    "vrfStatus not initialized BadAddr NoMacTableSpace NoRouteInfo BlockedTemporarily TimedOut "
                    "NotInitialized InProgress",
        ": replication table is full"},
       {0x2, " PortNotMapped", ""},
       {0xf0fce0f0, "", ""}, // bits no name covers are silent
   };
   for (const auto& [value, pretty, explain] : cases) {
      const MrouteFailureReason r(value);
      EXPECT_EQ(r.pretty(), pretty) << std::hex << value;
      EXPECT_EQ(r.logExplain(), explain) << std::hex << value;
      EXPECT_EQ(r.hwFailure(), *explain != 0) << std::hex << value;
   }
   EXPECT_EQ(stringValue(MrouteLib::LagOperationInstance(3u)), "3") << "a number of no member";
}

} // namespace
