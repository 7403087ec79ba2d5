// The failure reason's words and explanation, and the PIM-enabled entity's
// name restored from a backup.
#include "mroutelib/Small.h"

#include <iterator>

namespace MrouteLib {

namespace {

struct Word {
   uint32_t mask;
   const char* text;
};

// The order agents have always logged: bit 12 before bit 10, and bit 11
// (the RPA table) never written. Readers of old logs rely on both.
constexpr Word words[] = {
    {MrouteFailureReason::oifSetFailureHwFullMask, " MCDBFull"},
    {MrouteFailureReason::oifSetFailureNotMappedMask, " PortNotMapped"},
    {MrouteFailureReason::oifSetFailureNoFeCardMask, " NoFeCard"},
    {MrouteFailureReason::oifSetFailureMcastIdFullMask, " NoFreeMcastId"},
    {MrouteFailureReason::routeFailureHwFullMask, " NoSpaceInTcamOrLem"},
    {MrouteFailureReason::routeFailureNoRouteInfoMask, " NoRouteInfo"},
    {MrouteFailureReason::routeFailureVrfStatusNotInitedMask, " vrfStatus not initialized"},
    {MrouteFailureReason::routeFailureBadAddrMask, " BadAddr"},
    {MrouteFailureReason::macTableFailureHwFullMask, " NoMacTableSpace"},
    {MrouteFailureReason::macTableFailureNoRouteInfoMask, " NoRouteInfo"},
    {MrouteFailureReason::blockedMask, " BlockedTemporarily"},
    {MrouteFailureReason::timeoutMask, " TimedOut"},
    {MrouteFailureReason::notInitedMask, " NotInitialized"},
    {MrouteFailureReason::inProgressMask, " InProgress"},
};

// The hardware-full bits, the first one set giving the explanation.
constexpr Word explanations[] = {
    {MrouteFailureReason::oifSetFailureHwFullMask, ": replication table is full"},
    {MrouteFailureReason::oifSetFailureMcastIdFullMask, ": multicast ids exhausted"},
    {MrouteFailureReason::routeFailureHwFullMask, ": tcam/lem is full"},
    {MrouteFailureReason::macTableFailureHwFullMask, ": mac table is full"},
};

} // namespace

Gant::String MrouteFailureReason::logExplain() const {
   for (const Word& w : explanations)
      if (value() & w.mask) return w.text;
   return "";
}

Gant::String MrouteFailureReason::pretty() const {
   Gant::String out;
   for (const Word& w : words)
      if (value() & w.mask) out += w.text;
   return out;
}

void PimEnabled::nameIsFromBackup(const Gant::Name& name) { nameIs(name); }

} // namespace MrouteLib
