#pragma once
// mcastfib show, watch and produce: the MFIB of every producer on the
// machine, merged by priority as a reader merges it; its changes as they
// come; and a producer fed by hand.
#include "shmfib/MfibReader.h"

#include <iosfwd>
#include <span>
#include <string>

namespace Tool {

int showCommand(std::span<const std::string> args, std::ostream& out);
int watchCommand(std::span<const std::string> args, std::ostream& out);
int produceCommand(std::span<const std::string> args, std::ostream& out);
extern const char* const showDetails;
extern const char* const watchDetails;
extern const char* const produceDetails;

// One route in force: key, producer and priority, interfaces with their
// roles, route flags; "stale" when its producer is gone.
std::string routeLine(const Pond::Multicast::Fib::MfibReader& reader, const Pond::Multicast::Fib::Status& table,
                      const Pond::Multicast::Fib::Route& route);
// The merged MFIB of one reader, VRF by VRF, in key order.
void printMfib(const Pond::Multicast::Fib::MfibReader& reader, std::ostream& out, const std::string& vrf = "");

} // namespace Tool
