#pragma once
#include <iosfwd>
#include <span>
#include <string>

namespace Tool {
// mcastfib demo: producers in processes of their own, merged by a reader.
int demoCommand(std::span<const std::string> args, std::ostream& out);
} // namespace Tool
