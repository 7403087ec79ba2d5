#pragma once
#include <iosfwd>
#include <span>
#include <string>

namespace Tool {
// mcastfib key: builds a route key from a kind and its fields, or parses a
// key's text form, and shows its encoding.
int keyCommand(std::span<const std::string> args, std::ostream& out);
extern const char* const keyUsage;
} // namespace Tool
