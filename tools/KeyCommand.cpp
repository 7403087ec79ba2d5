#include "tools/KeyCommand.h"

#include "fib/RouteKey.h"

#include <iomanip>
#include <ostream>
#include <stdexcept>

namespace Tool {

using namespace Routing::Multicast::Fib;

const char* const keyUsage =
    "KIND FIELDS... | TEXT\n"
    "      kinds: vlan-floodset VLAN | multicast-floodset VLAN | vxlan-floodset VLAN |\n"
    "             eth-group VLAN MAC | mcast-group KIND INDEX | evpn-floodset VLAN TEP |\n"
    "             mroute SOURCE GROUP | invalid\n"
    "      TEXT:  a key's text form, e.g. \"Value('Routing::Multicast::Fib::IpGenRouteKey', ** {...})\"";

namespace {

void need(std::span<const std::string> args, std::size_t n, const char* what) {
   if (args.size() != n + 1) throw std::invalid_argument(std::string("key ") + args[0] + " needs " + what);
}

Bridging::VlanId vlan(const std::string& text) { return Gant::fromText<Bridging::VlanId>(text); }

IpGenRouteKey build(std::span<const std::string> a) {
   const std::string& kind = a[0];
   if (kind == "vlan-floodset") return need(a, 1, "VLAN"), makeRouteKeyVlanFloodset(vlan(a[1]));
   if (kind == "multicast-floodset") return need(a, 1, "VLAN"), makeRouteKeyMulticastFloodset(vlan(a[1]));
   if (kind == "vxlan-floodset") return need(a, 1, "VLAN"), makeRouteKeyVxlanCoreSideFloodset(vlan(a[1]));
   if (kind == "eth-group")
      return need(a, 2, "VLAN MAC"), makeRouteKeyEthGroup(vlan(a[1]), Gant::fromText<Pakto::EthAddr>(a[2]));
   if (kind == "mcast-group") {
      need(a, 2, "KIND INDEX");
      return makeRouteKeyMcastGroup(::Multicast::Group::GroupKey(Gant::fromText<uint16_t>(a[1]),
                                                                 Gant::fromText<uint16_t>(a[2])));
   }
   if (kind == "evpn-floodset")
      return need(a, 2, "VLAN TEP"),
             makeRouteKeyEvpnMultihomeFloodset(vlan(a[1]), Gant::fromText<Pakto::IpGenAddr>(a[2]));
   if (kind == "mroute") {
      need(a, 2, "SOURCE GROUP");
      auto s = Gant::fromText<Pakto::IpGenPrefix>(a[1]);
      auto g = Gant::fromText<Pakto::IpGenPrefix>(a[2]);
      return IpGenRouteKey(s, g);
   }
   if (kind == "invalid") return invalidRouteKey();
   throw std::invalid_argument("unknown key kind " + kind);
}

IpGenRouteKey parse(const std::string& text) {
   // The IPv4 form writes its kind; the generic form writes s and g.
   if (text.find("{'kind': ") != std::string::npos) return IpGenRouteKey(Gant::fromText<RouteKey>(text));
   return Gant::fromText<IpGenRouteKey>(text);
}

} // namespace

int keyCommand(std::span<const std::string> args, std::ostream& out) {
   if (args.empty()) throw std::invalid_argument("key needs a kind and its fields, or a text form");
   IpGenRouteKey key = args[0].starts_with("Value(") ? parse(args[0]) : build(args);
   RouteKeyType kind = key.kind();
   out << "kind     " << kind << " (" << static_cast<unsigned>(kind) << ")\n"
       << "pretty   " << key.pretty() << "\n"
       << "s        " << Gant::toText(key.s()) << "\n"
       << "g        " << Gant::toText(key.g()) << "\n"
       << "hash     0x" << std::hex << std::setw(8) << std::setfill('0') << key.hash() << std::dec
       << std::setfill(' ') << "\n"
       << "text     " << Gant::toText(key) << "\n";
   bool v4 = key.g().af() != Pakto::AddressFamily::ipv6 && key.s().af() != Pakto::AddressFamily::ipv6;
   if (v4) out << "v4 text  " << Gant::toText(RouteKey(key)) << "\n";
   return 0;
}

} // namespace Tool
