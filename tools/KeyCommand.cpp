#include "tools/KeyCommand.h"

#include "tools/Commands.h"

#include "fib/RouteKeyCheck.h"

#include <algorithm>
#include <iomanip>
#include <ostream>

namespace Tool {

using namespace Routing::Multicast::Fib;

const char* const keySynopsis = "KEY\nKIND FIELDS...";
const char* const keyDetails =
    "KEY is a key as the library prints it, one argument or several words:\n"
    "  (10.0.0.1,239.1.1.1)  (*,ff3e::1)  (10.0.0.0/8,239.1.1.0/24)\n"
    "  vlan10 Floodset  vlan10 Multicast Floodset  vlan10 Vxlan CoreSide Floodset\n"
    "  vlan100 01:00:5e:01:02:03  vlan10 10.0.0.1 EvpnMultihomeFloodset\n"
    "  Mcast Group Kind 19 Index 5  Unknown Type\n"
    "  Value('Routing::Multicast::Fib::IpGenRouteKey', ** {...}), either text form\n"
    "KIND FIELDS, the kind by its name as printed:\n"
    "  vlanFloodset VLAN | multicastFloodset VLAN | vxlanCoreSideFloodset VLAN |\n"
    "  ethGroup VLAN MAC | mcastGroup GROUPKIND INDEX | evpnMultihomeFloodset VLAN TEP |\n"
    "  mroute SOURCE GROUP | unknownRouteKeyType\n"
    "  (also vlan-floodset, multicast-floodset, vxlan-floodset, eth-group, mcast-group,\n"
    "  evpn-floodset and invalid). GROUPKIND is a number or mcastGroupKindTapAgg...;\n"
    "  SOURCE is a prefix or *, GROUP a multicast prefix; a bare address is a host prefix.";

namespace {

struct Alias {
   const char* name;
   RouteKeyType kind;
};
constexpr Alias aliases[] = {
    {"vlan-floodset", RouteKeyType::vlanFloodset},
    {"multicast-floodset", RouteKeyType::multicastFloodset},
    {"vxlan-floodset", RouteKeyType::vxlanCoreSideFloodset},
    {"eth-group", RouteKeyType::ethGroup},
    {"mcast-group", RouteKeyType::mcastGroup},
    {"evpn-floodset", RouteKeyType::evpnMultihomeFloodset},
    {"invalid", RouteKeyType::unknownRouteKeyType},
};

std::optional<RouteKeyType> kindNamed(const std::string& name) {
   for (const Alias& a : aliases)
      if (name == a.name) return a.kind;
   return routeKeyTypeNamed(name);
}

Bridging::VlanId vlan(const std::string& text) { return argument<Bridging::VlanId>("VLAN", text); }

uint16_t groupKind(const std::string& text) {
   uint32_t v = 0;
   if (gantEnumInfo(::Multicast::Group::McastGroupKind{}).valueOf(text, v)) return static_cast<uint16_t>(v);
   return argument<uint16_t>("group kind", text);
}

IpGenRouteKey mroute(const std::string& sText, const std::string& gText) {
   const auto g = argument<Pakto::IpGenPrefix>("group", gText);
   if (!g.isMulticast()) throw UsageError("bad group '" + gText + "': not a multicast prefix");
   const auto s = sText == "*" ? argument<Pakto::IpGenPrefix>("source", g.af() == Pakto::ipv6() ? "::/0" : "0.0.0.0/0")
                               : argument<Pakto::IpGenPrefix>("source", sText);
   if (s.af() != g.af()) throw UsageError("source '" + sText + "' and group '" + gText + "' of different families");
   return IpGenRouteKey(s, g);
}

IpGenRouteKey build(RouteKeyType kind, std::span<const std::string> a) {
   // Each kind's fields, by its value.
   static constexpr std::string_view fields[] = {
       "", "VLAN", "VLAN", "VLAN MAC", "GROUPKIND INDEX", "VLAN", "VLAN TEP", "SOURCE GROUP"};
   const std::string_view want = fields[static_cast<unsigned>(kind)];
   const auto count = want.empty() ? 0 : 1 + static_cast<std::size_t>(std::count(want.begin(), want.end(), ' '));
   if (a.size() - 1 != count)
      throw UsageError("key " + a[0] + " takes " + (count ? std::string(want) : std::string("no fields")));
   switch (kind) {
   case RouteKeyType::unknownRouteKeyType: return invalidRouteKey();
   case RouteKeyType::vlanFloodset: return makeRouteKeyVlanFloodset(vlan(a[1]));
   case RouteKeyType::multicastFloodset: return makeRouteKeyMulticastFloodset(vlan(a[1]));
   case RouteKeyType::vxlanCoreSideFloodset: return makeRouteKeyVxlanCoreSideFloodset(vlan(a[1]));
   case RouteKeyType::ethGroup: return makeRouteKeyEthGroup(vlan(a[1]), argument<Pakto::EthAddr>("MAC address", a[2]));
   case RouteKeyType::mcastGroup:
      return makeRouteKeyMcastGroup(
          ::Multicast::Group::GroupKey(groupKind(a[1]), argument<uint16_t>("group index", a[2])));
   case RouteKeyType::evpnMultihomeFloodset:
      return makeRouteKeyEvpnMultihomeFloodset(
          vlan(a[1]), Pakto::IpGenAddr(argument<Pakto::IpAddr>("tunnel endpoint", a[2])));
   case RouteKeyType::mroute: return mroute(a[1], a[2]);
   }
   throw UsageError("unknown key kind '" + a[0] + "'");
}

// A key as printed; several arguments are the words of one text.
IpGenRouteKey parse(std::span<const std::string> args) {
   std::string text = args[0];
   for (const std::string& word : args.subspan(1)) text += " " + word;
   std::string why;
   if (auto key = parseRouteKeyChecked(text, why)) return *key;
   throw UsageError("'" + text + "' is not a route key: " + why);
}

} // namespace

int keyCommand(std::span<const std::string> args, std::ostream& out) {
   expectArgs(args, 1, SIZE_MAX);
   const std::optional<RouteKeyType> named = kindNamed(args[0]);
   const IpGenRouteKey key = named ? build(*named, args) : parse(args);
   // Every key made above is one a builder makes; checked all the same, since
   // what follows would stop the process on any other.
   if (!checkedKind(key)) throw UsageError("no route key kind lays out " + Gant::toText(key));
   const RouteKeyType kind = key.kind();
   out << "kind     " << kind << " (" << static_cast<unsigned>(kind) << ")\n"
       << "pretty   " << key.pretty() << "\n"
       << "s        " << Gant::toText(key.s()) << "\n"
       << "g        " << Gant::toText(key.g()) << "\n"
       << "hash     0x" << std::hex << std::setw(8) << std::setfill('0') << key.hash() << std::dec
       << std::setfill(' ') << "\n"
       << "text     " << Gant::toText(key) << "\n";
   const bool v4 = key.g().af() != Pakto::AddressFamily::ipv6 && key.s().af() != Pakto::AddressFamily::ipv6;
   if (v4) out << "v4 text  " << Gant::toText(RouteKey(key)) << "\n";
   return 0;
}

} // namespace Tool
