#include "tools/Commands.h"
#include "tools/BitmapCommand.h"
#include "tools/DemoCommand.h"
#include "tools/FailureCommand.h"
#include "tools/MfibCommands.h"
#include "tools/OifSetCommand.h"
#include "tools/KeyCommand.h"
#include "tools/RoutesCommand.h"
#include "tools/Signals.h"
#include "tools/TableCommand.h"
#include "tools/UpcallCommand.h"

#include "flashlog/Flashlog.h"
#include "gant/TypeInfo.h"
#include "platform/IntfId.h"
#include "platform/IpGenAddr.h"

#include <cctype>
#include <iomanip>
#include <iostream>

namespace Tool {

namespace {

int prefix(std::span<const std::string> args, std::ostream& out) {
   expectArgs(args, 1, SIZE_MAX);
   for (const std::string& text : args) {
      const auto p = argument<Pakto::IpGenPrefix>("prefix", text);
      out << Gant::toText(p) << "\n"
          << "  family    " << p.af() << "\n"
          << "  address   " << p.address() << "\n"
          << "  length    " << unsigned(p.len()) << "\n"
          << "  multicast " << (p.isMulticast() ? "yes" : "no") << "\n"
          << "  host      " << (p.isHost() ? "yes" : "no") << "\n";
   }
   return 0;
}

int intf(std::span<const std::string> args, std::ostream& out) {
   expectArgs(args, 1, SIZE_MAX);
   for (const std::string& name : args) {
      const auto id = argument<Pakto::IntfId>("interface name", name);
      out << std::left << std::setw(20) << id.name() << " 0x" << std::hex << std::setw(16)
          << std::setfill('0') << std::right << id.value() << std::dec << std::setfill(' ') << "\n";
   }
   return 0;
}

int types(std::span<const std::string> args, std::ostream& out) {
   expectArgs(args, 0, 1);
   for (const Gant::TypeInfo* t : Gant::TypeRegistry::all()) {
      if (!args.empty() && std::string_view(t->name).find(args[0]) == std::string_view::npos) continue;
      out << t->name << (t->factory ? "  (entity)" : "") << "\n";
      for (const auto& a : t->attrs)
         out << "   " << std::left << std::setw(11) << Gant::attrKindName(a.kind) << a.name << " : "
             << a.typeName << "\n";
   }
   return 0;
}

int traceHandles(std::span<const std::string> args, std::ostream& out) {
   expectArgs(args, 0, 0);
   for (Flashlog::Handle* h : Flashlog::handles())
      out << std::left << std::setw(28) << h->name()
          << (h->level() < 0 ? std::string("off") : std::to_string(h->level())) << "\n";
   return 0;
}

int tour(std::span<const std::string> args, std::ostream& out) {
   expectArgs(args, 0, 0);
   // A guided tour of what the library knows, one command at a time.
   auto step = [&](const char* cmd, std::initializer_list<std::string> list) {
      std::vector<std::string> v(list);
      out << "$ mcastfib " << cmd;
      for (auto& a : v) out << ' ' << (a.find_first_of(" *()") == std::string::npos ? a : '"' + a + '"');
      out << "\n";
      findCommand(cmd)->run(v, out);
      out << "\n";
      if (stopping(out)) throw Stopped{};
   };
   step("key", {"ethGroup", "100", "01:00:5e:01:02:03"});
   step("key", {"mroute", "10.0.0.0/8", "239.1.1.1"});
   step("key", {"(*,239.1.1.1)"});
   step("key", {"vlan10 Floodset"});
   step("key", {"Value('Routing::Multicast::Fib::IpGenRouteKey', ** {'kind': 'mcastGroup', 'kind': 19, 'index': 5})"});
   step("prefix", {"239.1.1.0/24", "ff3e::8000:1/128", "10.0.0.1"});
   step("intf", {"Ethernet3", "Ethernet1/2/3", "Port-Channel10", "Vlan100"});
   step("types", {"RouteKey"});
   step("routes", {});
   return 0;
}

const Command table[] = {
    {"show", "[--af ipv4|ipv6] [--vrf NAME] [--prefix PREFIX]",
     "the merged MFIB of every producer on the machine, in key order", showDetails, showCommand},
    {"watch", "[--af ipv4|ipv6] [--vrf NAME] [--prefix PREFIX]",
     "the merged MFIB, then its changes as they come", watchDetails, watchCommand},
    {"produce", "--app NAME --priority N [--vrf NAME] [--prefix PREFIX]",
     "a producer fed from standard input: add, del, commit", produceDetails, produceCommand},
    {"routes", "", "a producer process writes a shared-memory route table while a reader process follows it",
     "The writer's table is removed when the command ends, however it ends.", routesCommand},
    {"table", tableSynopsis, "print the records of a shared-memory table, or follow its changes", tableDetails,
     tableCommand},
    {"bitmap", "[--prefix PREFIX] TABLE", "print a bit index allocator's table: held indexes and waiting keys",
     bitmapDetails, bitmapCommand},
    {"key", keySynopsis, "build or parse a route key and show its kind, pretty text and text forms", keyDetails,
     keyCommand},
    {"failure", "NUMBER", "decode a hardware failure reason: its words, explanation and bits", failureDetails, failureCommand},
    {"oifset", oifSetSynopsis, "build an OIF set from its members and show its hash and summary", oifSetDetails,
     oifSetCommand},
    {"prefix", "PREFIX...", "parse IPv4/IPv6 prefixes and show their properties",
     "PREFIX is an address with or without its length: 239.1.1.0/24, ff3e::1, 10.0.0.1.", prefix},
    {"intf", "NAME...", "encode interface names as interface ids", "NAME: Ethernet3, Ethernet1/2/3, Vlan100...",
     intf},
    {"types", "[FILTER]", "list registered types and their attributes",
     "FILTER keeps the types whose full name holds it.", types},
    {"watch-upcalls", watchUpcallsSynopsis, "print the kernel's multicast-routing upcalls as they come",
     watchUpcallsDetails, watchUpcallsCommand},
    {"trace-handles", "", "list trace handles and their levels", "", traceHandles},
    {"demo", "", "producer processes write routes, a reader merges them by priority; kill, removal, figures", "",
     demoCommand},
    {"tour", "", "a short tour of the keys, prefixes, interfaces and types", "", tour},
    {"help", "[COMMAND]", "list the commands, or show how to use one", "", nullptr},
};

} // namespace

std::span<const Command> commands() { return table; }

const Command* findCommand(std::string_view name) {
   for (const Command& c : table)
      if (name == c.name) return &c;
   return nullptr;
}

void printSynopsis(const Command& c, std::ostream& out) {
   std::string_view forms = c.synopsis;
   const char* lead = "usage: ";
   do {
      const std::size_t nl = std::min(forms.find('\n'), forms.size());
      out << lead << "mcastfib " << c.name << (nl ? " " : "") << forms.substr(0, nl) << "\n";
      forms.remove_prefix(std::min(nl + 1, forms.size()));
      lead = "       ";
   } while (!forms.empty());
}

void printUsage(const Command& c, std::ostream& out) {
   printSynopsis(c, out);
   // The summary as a sentence.
   out << "\n" << static_cast<char>(std::toupper(static_cast<unsigned char>(c.summary[0]))) << c.summary + 1 << ".\n";
   if (*c.details) out << "\n" << c.details << "\n";
}

Args parseArgs(std::span<const std::string> args, std::initializer_list<const char*> allowed) {
   Args a;
   for (std::size_t i = 0; i < args.size(); i += 2) {
      bool known = false;
      for (const char* name : allowed) known = known || args[i] == name;
      if (!known) throw UsageError("unexpected argument '" + args[i] + "'");
      if (i + 1 == args.size()) throw UsageError(args[i] + " needs a value");
      a.options[args[i]] = args[i + 1];
   }
   return a;
}

void expectArgs(std::span<const std::string> args, std::size_t min, std::size_t max) {
   if (args.size() < min)
      throw UsageError(args.empty() ? "missing arguments" : "missing arguments after '" + args.back() + "'");
   if (args.size() > max) throw UsageError("unexpected argument '" + args[max] + "'");
}

} // namespace Tool
