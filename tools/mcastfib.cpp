// mcastfib: explore the multicast FIB library from the shell.
//    mcastfib [--trace LEVELS] COMMAND [ARGS...]
#include "tools/Commands.h"

#include "flashlog/Config.h"
#include "flashlog/Flashlog.h"

#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

namespace {

void usage(std::ostream& out) {
   out << "usage: mcastfib [--trace LEVELS] COMMAND [ARGS...]\n"
          "  --trace LEVELS   enable traces, e.g. all=9 or MrouteLib=9,MfibDirSm=5\n\n";
   for (const Tool::Command& c : Tool::commands())
      out << "  " << c.name << ' ' << c.usage << "\n      " << c.help << "\n";
}

} // namespace

int main(int argc, char** argv) {
   std::vector<std::string> args(argv + 1, argv + argc);
   try {
      while (!args.empty() && args.front().starts_with("--")) {
         if (args.front() == "--trace" && args.size() >= 2) {
            Flashlog::configure(args[1]);
            Flashlog::setSink(Flashlog::fdSink(STDERR_FILENO));
            args.erase(args.begin(), args.begin() + 2);
         } else if (args.front() == "--help") {
            usage(std::cout);
            return 0;
         } else {
            throw std::invalid_argument("unknown option " + args.front());
         }
      }
      if (args.empty()) {
         usage(std::cerr);
         return 2;
      }
      const Tool::Command* cmd = Tool::findCommand(args.front());
      if (!cmd) throw std::invalid_argument("unknown command " + args.front());
      return cmd->run(std::span<const std::string>(args).subspan(1), std::cout);
   } catch (const std::exception& e) {
      std::cerr << "mcastfib: " << e.what() << "\n";
      return 1;
   }
}
