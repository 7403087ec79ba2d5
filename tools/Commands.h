#pragma once
// The subcommands of the mcastfib tool. Each takes its arguments and an
// output stream and returns the process exit code.
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>

namespace Tool {

struct Command {
   const char* name;
   const char* usage;
   const char* help;
   int (*run)(std::span<const std::string> args, std::ostream& out);
};

std::span<const Command> commands();
const Command* findCommand(std::string_view name);

} // namespace Tool
