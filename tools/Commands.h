#pragma once
// The subcommands of the mcastfib tool. Each takes its arguments and an
// output stream and returns the process exit status: 0 when done, 1 when it
// failed. A command line that is wrong throws UsageError (status 2) before
// anything is done.
#include "gant/Codec.h"

#include <initializer_list>
#include <iosfwd>
#include <map>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Tool {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// The command line is wrong: a missing or extra argument, an unknown
// command, kind or option, a malformed key, number or address.
class UsageError : public std::invalid_argument {
 public:
   using std::invalid_argument::invalid_argument;
};

struct Command {
   const char* name;
   const char* synopsis; // its arguments; one line per form of the command
   const char* summary;  // what it does, in one line
   const char* details;  // what its arguments are, or ""
   int (*run)(std::span<const std::string> args, std::ostream& out);
};

std::span<const Command> commands();
const Command* findCommand(std::string_view name);
// "usage: mcastfib NAME ..." for each form of the command.
void printSynopsis(const Command& c, std::ostream& out);
// The synopsis, the summary and the details.
void printUsage(const Command& c, std::ostream& out);

// Refuses fewer than min or more than max arguments.
void expectArgs(std::span<const std::string> args, std::size_t min, std::size_t max);

// Options given as --name VALUE pairs.
struct Args {
   std::map<std::string, std::string> options;
   std::string get(const std::string& name, const std::string& otherwise) const {
      auto it = options.find(name);
      return it == options.end() ? otherwise : it->second;
   }
};

// --name VALUE pairs among the names allowed, nothing else.
Args parseArgs(std::span<const std::string> args, std::initializer_list<const char*> allowed);

// An argument read by its type's own parser; malformed or out-of-range text
// is a UsageError that names what was expected.
template <class T>
T argument(const char* what, const std::string& text) {
   try {
      return Gant::fromText<T>(text);
   } catch (const std::exception& e) {
      throw UsageError(std::string("bad ") + what + " '" + text + "': " + e.what());
   }
}

} // namespace Tool
