#include "tools/OifSetCommand.h"
#include "tools/Commands.h"

#include "mroutelib/PortVlan.h"

#include <iomanip>
#include <ostream>

namespace Tool {

const char* const oifSetSynopsis =
    "[--accepting-vlan VLAN] [--iif NAME] [--nat VLAN]... [--frr MEMBER]... [--feature N] [--cpu N] MEMBER...";
const char* const oifSetDetails =
    "MEMBER: OUTLIF:PORT[:PROPERTY] as a set's summary prints it, e.g. 100:Ethernet3 or 5000:Port-Channel2:2;\n"
    "OUTLIF 1..4094 is a VLAN, anything else an outgoing logical interface. Only members, NAT VLANs, the\n"
    "accepting VLAN and the incoming interface enter the hash.";

namespace {

MrouteLib::PortVlan member(const std::string& text) {
   const auto colon = text.find(':');
   if (colon == std::string::npos) throw UsageError("bad member '" + text + "': OUTLIF:PORT[:PROPERTY] expected");
   const auto second = text.find(':', colon + 1);
   const std::string port = text.substr(colon + 1, second == std::string::npos ? std::string::npos : second - colon - 1);
   MrouteLib::PortVlan pv(argument<Pakto::IntfId>("port", port), argument<uint32_t>("out-LIF", text.substr(0, colon)),
                          0);
   if (second != std::string::npos)
      pv.portPropertyIs(argument<MrouteLib::PortProperty>("port property", text.substr(second + 1)));
   return pv;
}

void printMember(std::ostream& out, const MrouteLib::PortVlan& pv) {
   out << "  " << std::left << std::setw(7) << (pv.isOutLif() ? "outLif" : "vlan") << std::setw(11)
       << pv.outLif().value() << std::setw(20) << pv.port().name() << "property " << unsigned(pv.portProperty().value())
       << "\n";
}

} // namespace

int oifSetCommand(std::span<const std::string> args, std::ostream& out) {
   MrouteLib::PortVlanSet set;
   for (std::size_t i = 0; i < args.size(); ++i) {
      const std::string& a = args[i];
      if (a.rfind("--", 0) != 0) {
         set.portVlanIs(member(a), true);
         continue;
      }
      if (a != "--accepting-vlan" && a != "--iif" && a != "--nat" && a != "--frr" && a != "--feature" && a != "--cpu")
         throw UsageError("unknown option '" + a + "'");
      if (i + 1 == args.size()) throw UsageError(a + " needs a value");
      const std::string& v = args[++i];
      if (a == "--accepting-vlan") set.acceptingVlanIdIs(argument<Bridging::VlanIdOrNone>("VLAN", v));
      else if (a == "--iif") set.currentIifIs(argument<Pakto::IntfId>("interface name", v));
      else if (a == "--nat") set.natVlanIs(argument<Bridging::VlanId>("VLAN", v), true);
      else if (a == "--frr") set.portVlanFrrIs(member(v), true);
      else if (a == "--feature") set.featureFlagIs(argument<uint32_t>("feature flag", v));
      else {
         try {
            set.toCpuPurposeIs(MrouteLib::ToCpuPurpose(argument<uint8_t>("to-CPU purpose", v)));
         } catch (const Gant::RangeError& e) {
            throw UsageError("bad to-CPU purpose '" + v + "': " + e.what());
         }
      }
   }
   if (set.portVlan().empty()) throw UsageError("missing MEMBER");
   const uint32_t hash = set.saveHash();
   out << "hash     0x" << std::hex << std::setw(8) << std::setfill('0') << hash << std::dec << std::setfill(' ')
       << " (" << hash << ")\n"
       << "pretty   " << set.pretty() << "\n"
       << "members  " << set.portVlan().size() << "\n";
   for (const auto& [pv, on] : set.portVlan()) printMember(out, pv);
   if (!set.portVlanFrr().empty()) {
      out << "frr      " << set.portVlanFrr().size() << " behind " << set.currentIif().name() << "\n";
      for (const auto& [pv, on] : set.portVlanFrr()) printMember(out, pv);
   }
   return 0;
}

} // namespace Tool
