#pragma once
#include <iosfwd>
#include <span>
#include <string>

namespace Tool {
// mcastfib failure: decodes a hardware failure reason an agent logged as a
// number into its words, its explanation and its named bits.
int failureCommand(std::span<const std::string> args, std::ostream& out);
extern const char* const failureDetails;
} // namespace Tool
