// mcastfib: explore the multicast FIB library from the shell.
//    mcastfib [--trace LEVELS] COMMAND [ARGS...]
#include "tools/Commands.h"
#include "tools/Signals.h"

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
   int status = 0;
   try {
      Tool::installSignalHandlers();
      while (!args.empty() && args.front().starts_with("--")) {
         if (args.front() == "--trace" && args.size() >= 2) {
            Flashlog::configure(args[1]);
            Flashlog::setSink(Flashlog::fdSink(STDERR_FILENO));
            args.erase(args.begin(), args.begin() + 2);
         } else if (args.front() == "--help") {
            usage(std::cout);
            return Tool::finish(0, std::cout);
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
      status = cmd->run(std::span<const std::string>(args).subspan(1), std::cout);
   } catch (const Tool::Stopped&) {
      status = 1;
   } catch (const std::exception& e) {
      // An error met while stopping for a signal is only a symptom of it.
      if (!Tool::receivedSignal()) std::cerr << "mcastfib: " << e.what() << "\n";
      status = 1;
   }
   return Tool::finish(status, std::cout);
}
