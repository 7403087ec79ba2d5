#pragma once
#include <iosfwd>
#include <span>
#include <string>

namespace Tool {
// mcastfib routes: a writer process and a reader process on one route table.
int routesCommand(std::span<const std::string> args, std::ostream& out);
} // namespace Tool
