#include "tools/Commands.h"
#include "tools/KeyCommand.h"
#include "tools/RoutesCommand.h"
#include "tools/Signals.h"

#include "flashlog/Flashlog.h"
#include "gant/Codec.h"
#include "gant/TypeInfo.h"
#include "platform/IntfId.h"
#include "platform/IpGenAddr.h"

#include <iomanip>
#include <iostream>

namespace Tool {

namespace {

int prefix(std::span<const std::string> args, std::ostream& out) {
   if (args.empty()) throw std::invalid_argument("prefix needs at least one prefix text");
   for (const std::string& text : args) {
      auto p = Gant::fromText<Pakto::IpGenPrefix>(text);
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
   if (args.empty()) throw std::invalid_argument("intf needs at least one interface name");
   for (const std::string& name : args) {
      Pakto::IntfId id(name);
      out << std::left << std::setw(20) << id.name() << " 0x" << std::hex << std::setw(16)
          << std::setfill('0') << std::right << id.value() << std::dec << std::setfill(' ') << "\n";
   }
   return 0;
}

int types(std::span<const std::string> args, std::ostream& out) {
   for (const Gant::TypeInfo* t : Gant::TypeRegistry::all()) {
      if (!args.empty() && std::string_view(t->name).find(args[0]) == std::string_view::npos) continue;
      out << t->name << (t->factory ? "  (entity)" : "") << "\n";
      for (const auto& a : t->attrs)
         out << "   " << std::left << std::setw(11) << Gant::attrKindName(a.kind) << a.name << " : "
             << a.typeName << "\n";
   }
   return 0;
}

int traceHandles(std::span<const std::string>, std::ostream& out) {
   for (Flashlog::Handle* h : Flashlog::handles())
      out << std::left << std::setw(28) << h->name()
          << (h->level() < 0 ? std::string("off") : std::to_string(h->level())) << "\n";
   return 0;
}

int demo(std::span<const std::string>, std::ostream& out) {
   // A guided tour of what the library knows, one command at a time.
   auto step = [&](const char* cmd, std::initializer_list<std::string> args) {
      std::vector<std::string> v(args);
      out << "$ mcastfib " << cmd;
      for (auto& a : v) out << ' ' << (a.find(' ') == std::string::npos ? a : '"' + a + '"');
      out << "\n";
      findCommand(cmd)->run(v, out);
      out << "\n";
      if (stopping(out)) throw Stopped{};
   };
   step("key", {"eth-group", "100", "01:00:5e:01:02:03"});
   step("key", {"mroute", "10.0.0.0/8", "239.1.1.1/32"});
   step("key", {"Value('Routing::Multicast::Fib::IpGenRouteKey', ** {'kind': 'vlanFloodset', 'vlanId': 10})"});
   step("prefix", {"239.1.1.0/24", "ff3e::8000:1/128", "10.0.0.1"});
   step("intf", {"Ethernet3", "Ethernet1/2/3", "Port-Channel10", "Vlan100"});
   step("types", {"RouteKey"});
   step("routes", {});
   return 0;
}

const Command table[] = {
    {"routes", "", "a producer process writes a shared-memory route table while a reader process follows it",
     routesCommand},
    {"key", keyUsage, "build or parse a route key and show its kind, pretty text and text forms", keyCommand},
    {"prefix", "PREFIX...", "parse IPv4/IPv6 prefixes and show their properties", prefix},
    {"intf", "NAME...", "encode interface names as interface ids", intf},
    {"types", "[FILTER]", "list registered types and their attributes", types},
    {"trace-handles", "", "list trace handles and their levels", traceHandles},
    {"demo", "", "a short tour of the above", demo},
};

} // namespace

std::span<const Command> commands() { return table; }

const Command* findCommand(std::string_view name) {
   for (const Command& c : table)
      if (name == c.name) return &c;
   return nullptr;
}

} // namespace Tool
