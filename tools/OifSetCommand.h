#pragma once
#include <iosfwd>
#include <span>
#include <string>

namespace Tool {
// mcastfib oifset: builds a port/VLAN set from members as an agent's trace
// prints them and shows its members, hash and summary, so that a logged
// hash can be told apart from another.
int oifSetCommand(std::span<const std::string> args, std::ostream& out);
extern const char* const oifSetSynopsis;
extern const char* const oifSetDetails;
} // namespace Tool
