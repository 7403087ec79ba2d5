// mcastfib: explore the multicast FIB library from the shell.
//    mcastfib [--trace LEVELS] COMMAND [ARGS...]
// Exit status: 0 done, 1 the command failed, 2 the command line is wrong.
// Every failure is reported on stderr; none ends in a core dump.
#include "tools/Commands.h"
#include "tools/Signals.h"

#include "flashlog/Config.h"
#include "flashlog/Flashlog.h"
#include "gant/Error.h"

#include <unistd.h>

#include <cstring>
#include <iostream>
#include <string>
#include <vector>

namespace {

void usage(std::ostream& out) {
   out << "usage: mcastfib [--trace LEVELS] COMMAND [ARGS...]\n"
          "       mcastfib help [COMMAND]\n"
          "       mcastfib COMMAND --help\n"
          "  --trace LEVELS   enable traces, e.g. all=9 or MrouteLib=9,MfibDirSm=5\n\n";
   for (const Tool::Command& c : Tool::commands()) {
      out << "  " << c.name;
      std::string_view forms = c.synopsis;
      const std::string indent(std::string_view(c.name).size() + 2, ' ');
      for (bool first = true; !forms.empty(); first = false) {
         const std::size_t nl = std::min(forms.find('\n'), forms.size());
         out << (first ? " " : "\n" + indent + " ") << forms.substr(0, nl);
         forms.remove_prefix(std::min(nl + 1, forms.size()));
      }
      out << "\n      " << c.summary << "\n";
   }
   out << "\nExit status: 0 done, 1 the command failed, 2 the command line is wrong.\n";
}

// mcastfib help [COMMAND]
int help(std::span<const std::string> args) {
   Tool::expectArgs(args, 0, 1);
   if (args.empty()) return usage(std::cout), 0;
   const Tool::Command* c = Tool::findCommand(args[0]);
   if (!c) throw Tool::UsageError("unknown command '" + args[0] + "'");
   Tool::printUsage(*c, std::cout);
   return 0;
}

std::string message(const std::exception& e) {
   if (const auto* errno_ = dynamic_cast<const Gant::ErrnoError*>(&e))
      return errno_->call() + ": " + std::strerror(errno_->errorNo());
   return e.what();
}

} // namespace

int main(int argc, char** argv) {
   std::vector<std::string> args(argv + 1, argv + argc);
   const Tool::Command* cmd = nullptr;
   // Who reports: "mcastfib" until the command is known, then "mcastfib CMD".
   std::string who = "mcastfib";
   int status = 0;
   try {
      Tool::installSignalHandlers();
      while (!args.empty() && args.front().starts_with("-")) {
         if (args.front() == "--trace") {
            if (args.size() < 2) throw Tool::UsageError("--trace needs LEVELS");
            try {
               Flashlog::configure(args[1]);
            } catch (const Gant::ParseError& e) {
               throw Tool::UsageError(std::string("bad --trace LEVELS: ") + e.what());
            }
            Flashlog::setSink(Flashlog::fdSink(STDERR_FILENO));
            args.erase(args.begin(), args.begin() + 2);
         } else if (args.front() == "--help" || args.front() == "-h") {
            usage(std::cout);
            return Tool::finish(0, std::cout);
         } else {
            throw Tool::UsageError("unknown option '" + args.front() + "'");
         }
      }
      if (args.empty()) throw Tool::UsageError("no command");
      cmd = Tool::findCommand(args.front());
      if (!cmd) throw Tool::UsageError("unknown command '" + args.front() + "'");
      who += " " + args.front();
      const std::span<const std::string> rest = std::span<const std::string>(args).subspan(1);
      if (!cmd->run) {
         status = help(rest);
      } else if (std::find_if(rest.begin(), rest.end(), [](auto& a) { return a == "--help" || a == "-h"; }) !=
                 rest.end()) {
         Tool::printUsage(*cmd, std::cout);
      } else {
         status = cmd->run(rest, std::cout);
      }
   } catch (const Tool::UsageError& e) {
      std::cout.flush();
      std::cerr << who << ": " << e.what() << "\n";
      if (cmd) Tool::printSynopsis(*cmd, std::cerr);
      else std::cerr << "usage: mcastfib [--trace LEVELS] COMMAND [ARGS...]\n";
      std::cerr << "Run 'mcastfib help" << (cmd ? std::string(" ") + cmd->name : "") << "' for more.\n";
      status = Tool::kExitUsage;
   } catch (const Tool::Stopped&) {
      status = Tool::kExitFailure;
   } catch (const std::exception& e) {
      // An error met while stopping for a signal is only a symptom of it.
      if (!Tool::receivedSignal()) std::cerr << who << ": " << message(e) << "\n";
      status = Tool::kExitFailure;
   } catch (...) {
      if (!Tool::receivedSignal()) std::cerr << who << ": unexpected failure\n";
      status = Tool::kExitFailure;
   }
   return Tool::finish(status, std::cout);
}
