// Route keys: the kind encoding, accessors, pretty text and the IPv4 key's
// own text form and parser.
#include "fib/RouteKey.h"

#include "gant/Assert.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace Routing::Multicast::Fib {

namespace {

// Named as the assertions that guard the accessors print them.
constexpr RouteKeyType unknownRouteKeyType_ = RouteKeyType::unknownRouteKeyType;
constexpr RouteKeyType vlanFloodset_ = RouteKeyType::vlanFloodset;
constexpr RouteKeyType multicastFloodset_ = RouteKeyType::multicastFloodset;
constexpr RouteKeyType ethGroup_ = RouteKeyType::ethGroup;
constexpr RouteKeyType mcastGroup_ = RouteKeyType::mcastGroup;
constexpr RouteKeyType vxlanCoreSideFloodset_ = RouteKeyType::vxlanCoreSideFloodset;
constexpr RouteKeyType evpnMultihomeFloodset_ = RouteKeyType::evpnMultihomeFloodset;
constexpr RouteKeyType mroute_ = RouteKeyType::mroute;

Pakto::Prefix hostPrefix(uint32_t hostOrder) { return Pakto::Prefix(Pakto::IpAddr::fromHost(hostOrder), 32); }

// The group prefix of a flood-set kind: kind nibble, then the 12-bit VLAN.
IpGenRouteKey floodset(RouteKeyType kind, Bridging::VlanId vlan, const Pakto::IpGenPrefix& s) {
   uint32_t g = static_cast<uint32_t>(kind) << 28 | static_cast<uint32_t>(vlan.value()) << 16;
   return IpGenRouteKey(s, Pakto::IpGenPrefix(hostPrefix(g)));
}

RouteKeyType kindOfGroup(uint32_t g) {
   uint32_t n = g >> 28;
   return n == 14 || n == 15 ? mroute_ : static_cast<RouteKeyType>(n);
}

// Accessors shared by both key forms, on the host-order words.
Bridging::VlanId vlanOf(uint32_t g) { return Bridging::VlanId((g >> 16) & 0xfff); }

Pakto::EthAddr ethOf(RouteKeyType type, uint32_t g, uint32_t s) {
   if (type != ethGroup_) return Pakto::EthAddr();
   return Pakto::EthAddr(static_cast<uint8_t>(g >> 8), static_cast<uint8_t>(g), static_cast<uint8_t>(s >> 24),
                         static_cast<uint8_t>(s >> 16), static_cast<uint8_t>(s >> 8), static_cast<uint8_t>(s));
}

::Multicast::Group::GroupKey groupOf(uint32_t s) {
   return ::Multicast::Group::GroupKey(static_cast<uint16_t>(s >> 16), static_cast<uint16_t>(s & 0xffff), 0);
}

template <class P>
void appendAddress(std::string& out, const P& p) {
   std::string text = Gant::toText(p.address());
   out += text;
}

// The (S,G) text; host prefixes are written without their length.
template <class P>
std::string prettyMroute(const P& s, const P& g, bool sHost, bool gHost) {
   std::string out = "(";
   if (s.len() == 0) {
      out += "*,";
      appendAddress(out, g);
      return out + ")";
   }
   appendAddress(out, s);
   if (!sHost) {
      out += '/';
      out += std::to_string(s.len());
   }
   out += ",";
   appendAddress(out, g);
   if (!gHost) {
      out += '/';
      out += std::to_string(g.len());
   }
   return out + ")";
}

template <class K>
std::string prettyNonIp(const K& key, RouteKeyType type) {
   auto vlan = [&] {
      std::string out = "vlan";
      out += std::to_string(key.vlanId().value());
      return out;
   };
   switch (type) {
   case RouteKeyType::unknownRouteKeyType: return "Unknown Type";
   case RouteKeyType::vlanFloodset: return vlan() + " Floodset";
   case RouteKeyType::multicastFloodset: return vlan() + " Multicast Floodset";
   case RouteKeyType::ethGroup: return vlan() + " " + Gant::toText(key.ethAddr());
   case RouteKeyType::mcastGroup: {
      auto grp = key.mcastGroup();
      std::string out = "Mcast Group Kind ";
      out += std::to_string(grp.kind());
      out += " Index ";
      out += std::to_string(grp.index());
      return out;
   }
   case RouteKeyType::vxlanCoreSideFloodset: return vlan() + " Vxlan CoreSide Floodset";
   case RouteKeyType::evpnMultihomeFloodset:
      return vlan() + " " + Gant::toText(key.evpnTepIp()) + " EvpnMultihomeFloodset";
   default: break;
   }
   GANT_ASSERT_TEXT(false, "Unexpected RouteKey type");
   return {};
}

} // namespace

// ---- builders -------------------------------------------------------------

IpGenRouteKey makeRouteKeyVlanFloodset(Bridging::VlanId vlan) {
   return floodset(vlanFloodset_, vlan, Pakto::IpGenPrefix(Pakto::Prefix()));
}
IpGenRouteKey makeRouteKeyMulticastFloodset(Bridging::VlanId vlan) {
   return floodset(multicastFloodset_, vlan, Pakto::IpGenPrefix(Pakto::Prefix()));
}
IpGenRouteKey makeRouteKeyVxlanCoreSideFloodset(Bridging::VlanId vlan) {
   return floodset(vxlanCoreSideFloodset_, vlan, Pakto::IpGenPrefix(Pakto::Prefix()));
}
IpGenRouteKey makeRouteKeyEthGroup(Bridging::VlanId vlan, const Pakto::EthAddr& mac) {
   uint32_t g = static_cast<uint32_t>(ethGroup_) << 28 | static_cast<uint32_t>(vlan.value()) << 16 |
                static_cast<uint32_t>(mac.octet(0)) << 8 | mac.octet(1);
   uint32_t s = static_cast<uint32_t>(mac.octet(2)) << 24 | static_cast<uint32_t>(mac.octet(3)) << 16 |
                static_cast<uint32_t>(mac.octet(4)) << 8 | mac.octet(5);
   return IpGenRouteKey(Pakto::IpGenPrefix(hostPrefix(s)), Pakto::IpGenPrefix(hostPrefix(g)));
}
IpGenRouteKey makeRouteKeyMcastGroup(const ::Multicast::Group::GroupKey& group) {
   uint32_t s = static_cast<uint32_t>(group.kind()) << 16 | group.index();
   uint32_t g = static_cast<uint32_t>(mcastGroup_) << 28;
   return IpGenRouteKey(Pakto::IpGenPrefix(hostPrefix(s)), Pakto::IpGenPrefix(hostPrefix(g)));
}
IpGenRouteKey makeRouteKeyEvpnMultihomeFloodset(Bridging::VlanId vlan, const Pakto::IpGenAddr& tep) {
   return floodset(evpnMultihomeFloodset_, vlan, Pakto::IpGenPrefix(tep, 32));
}
IpGenRouteKey makeRouteKeyMroute(const Pakto::Prefix& s, const Pakto::Prefix& g) {
   return IpGenRouteKey(Pakto::IpGenPrefix(s), Pakto::IpGenPrefix(g));
}
IpGenRouteKey invalidRouteKey() { return IpGenRouteKey(); }

// ---- IpGenRouteKey --------------------------------------------------------

IpGenRouteKey::IpGenRouteKey(const RouteKey& k) : s_(k.s()), g_(k.g()) {}

RouteKeyType IpGenRouteKey::kind() const {
   if (g_.isMulticast()) return mroute_;
   if (g_ == Pakto::IpGenPrefix()) return unknownRouteKeyType_;
   GANT_ASSERT(g().af() == Pakto::ipv4());
   return kindOfGroup(g_.v4Prefix().address().hostValue());
}

Bridging::VlanId IpGenRouteKey::vlanId() const {
   RouteKeyType type = kind();
   GANT_ASSERT(type == vlanFloodset_ or type == multicastFloodset_ or type == vxlanCoreSideFloodset_ or
               type == ethGroup_ or type == evpnMultihomeFloodset_);
   return vlanOf(g_.v4Prefix().address().hostValue());
}

Pakto::EthAddr IpGenRouteKey::ethAddr() const {
   RouteKeyType type = kind();
   GANT_ASSERT(type not_eq mroute_);
   if (type != ethGroup_) return Pakto::EthAddr();
   return ethOf(type, g_.v4Prefix().address().hostValue(), s_.v4Prefix().address().hostValue());
}

::Multicast::Group::GroupKey IpGenRouteKey::mcastGroup() const {
   RouteKeyType type = kind();
   GANT_ASSERT(type == mcastGroup_);
   return groupOf(s_.v4Prefix().address().hostValue());
}

Pakto::IpGenAddr IpGenRouteKey::evpnTepIp() const {
   RouteKeyType type = kind();
   GANT_ASSERT(type == evpnMultihomeFloodset_);
   return s_.address();
}

Gant::String IpGenRouteKey::pretty() const {
   RouteKeyType type = kind();
   if (type == mroute_) return prettyMroute(s_, g_, s_.isHost(), g_.isHost());
   return prettyNonIp(*this, type);
}

// ---- RouteKey -------------------------------------------------------------

RouteKey::RouteKey(const IpGenRouteKey& k) : s_(k.s().v4Prefix()), g_(k.g().v4Prefix()) {}

RouteKeyType RouteKey::kind() const noexcept { return kindOfGroup(g_.address().hostValue()); }

Bridging::VlanId RouteKey::vlanId() const {
   const RouteKey& key = *this;
   GANT_ASSERT(key.kind() != mroute_);
   return vlanOf(g_.address().hostValue());
}

Pakto::EthAddr RouteKey::ethAddr() const {
   RouteKeyType type = kind();
   GANT_ASSERT(type != mroute_);
   return ethOf(type, g_.address().hostValue(), s_.address().hostValue());
}

::Multicast::Group::GroupKey RouteKey::mcastGroup() const {
   RouteKeyType type = kind();
   GANT_ASSERT(type == mcastGroup_);
   return groupOf(s_.address().hostValue());
}

Pakto::IpGenAddr RouteKey::evpnTepIp() const {
   RouteKeyType type = kind();
   GANT_ASSERT(type == evpnMultihomeFloodset_);
   return Pakto::IpGenAddr(s_.address());
}

Gant::String RouteKey::pretty() const {
   RouteKeyType type = kind();
   if (type == mroute_) return prettyMroute(s_, g_, s_.len() == 32, g_.len() == 32);
   return prettyNonIp(*this, type);
}

void RouteKey::gantText(std::string& out) const {
   RouteKeyType type = kind();
   out += "Value('Routing::Multicast::Fib::IpGenRouteKey', ** {'kind': ";
   Gant::Codec<RouteKeyType>::text(out, type);
   auto vlan = [&] { return std::to_string(vlanId().value()); };
   switch (type) {
   case RouteKeyType::vlanFloodset:
   case RouteKeyType::multicastFloodset:
   case RouteKeyType::vxlanCoreSideFloodset: out += ", 'vlanId': " + vlan(); break;
   case RouteKeyType::ethGroup: out += ", 'vlanId': " + vlan() + ", 'ethGroup': " + Gant::toText(ethAddr()); break;
   case RouteKeyType::mcastGroup: {
      auto grp = mcastGroup();
      out += ", 'kind': " + std::to_string(grp.kind()) + ", 'index': " + std::to_string(grp.index());
      break;
   }
   case RouteKeyType::evpnMultihomeFloodset:
      // "vlanID" with a capital D: this kind has always been written so.
      out += ", 'vlanID': " + vlan() + ", 'Peer VTEP IP': " + Gant::toText(evpnTepIp());
      break;
   case RouteKeyType::mroute: out += ", 's': " + Gant::toText(s_) + ", 'g': " + Gant::toText(g_); break;
   default: break;
   }
   out += "})";
}

// Reads what gantText writes for the flood-set, ethGroup and mroute kinds.
// The evpnMultihomeFloodset and mcastGroup forms do not read back: the scan
// patterns below differ from the writer's, and that is kept as it is.
RouteKey RouteKey::gantParse(Gant::TextReader& r) {
   std::string text(r.rest());
   const char* in = text.c_str();
   char kindName[64] = {};
   int matches = std::sscanf(in, "Value('Routing::Multicast::Fib::IpGenRouteKey', ** {'kind': '%63[_a-zA-Z]",
                             kindName);
   GANT_ASSERT(matches == 1);
   RouteKeyType type = RouteKeyTypeInstance(std::string_view(kindName));
   std::size_t at = text.find(kindName);
   at = std::min(at + std::strlen(kindName) + 3, text.size());
   const char* fields = in + at;

   IpGenRouteKey key;
   int used = 0;
   unsigned vlan = 0;
   switch (type) {
   case RouteKeyType::vlanFloodset:
   case RouteKeyType::multicastFloodset:
   case RouteKeyType::vxlanCoreSideFloodset: {
      matches = std::sscanf(fields, "'vlanId': %u%n", &vlan, &used);
      GANT_ASSERT(matches == 1);
      Bridging::VlanId id(vlan);
      key = type == vlanFloodset_       ? makeRouteKeyVlanFloodset(id)
            : type == multicastFloodset_ ? makeRouteKeyMulticastFloodset(id)
                                         : makeRouteKeyVxlanCoreSideFloodset(id);
      break;
   }
   case RouteKeyType::ethGroup: {
      char mac[64] = {};
      matches = std::sscanf(fields, "'vlanId': %u, 'ethGroup': %63[:0-9a-zA-Z]%n", &vlan, mac, &used);
      GANT_ASSERT(matches == 2);
      key = makeRouteKeyEthGroup(Bridging::VlanId(vlan), Gant::fromText<Pakto::EthAddr>(mac));
      break;
   }
   case RouteKeyType::mcastGroup: {
      // The pattern is "'kind': %u, 'index' : %u" with the blank before the
      // second colon taken literally, so the writer's "'index': " does not
      // match it.
      unsigned kind = 0, index = 0;
      int at2 = 0;
      matches = std::sscanf(fields, "'kind': %u, 'index'%n", &kind, &at2);
      if (matches == 1 && at2 > 0 && std::strncmp(fields + at2, " : ", 3) == 0) {
         int used2 = 0;
         matches += std::sscanf(fields + at2 + 3, "%u%n", &index, &used2);
         used = at2 + 3 + used2;
      }
      GANT_ASSERT(matches == 2);
      key = makeRouteKeyMcastGroup(
          ::Multicast::Group::GroupKey(static_cast<uint16_t>(kind), static_cast<uint16_t>(index)));
      break;
   }
   case RouteKeyType::evpnMultihomeFloodset: {
      char tep[64] = {};
      matches = std::sscanf(fields, "'vlanId': %u, 'Peer VTEP IP': %63[./0-9]%n", &vlan, tep, &used);
      GANT_ASSERT(matches == 2);
      key = makeRouteKeyEvpnMultihomeFloodset(Bridging::VlanId(vlan),
                                              Pakto::IpGenAddr(Gant::fromText<Pakto::IpAddr>(tep)));
      break;
   }
   case RouteKeyType::mroute: {
      char s[64] = {}, g[64] = {};
      matches = std::sscanf(fields, "'s': %63[./0-9], 'g': %63[./0-9]%n", s, g, &used);
      GANT_ASSERT(matches == 2);
      key = makeRouteKeyMroute(Gant::fromText<Pakto::Prefix>(s), Gant::fromText<Pakto::Prefix>(g));
      break;
   }
   default:
      // No fields: moving behind the name has already passed the closing "})".
      r.skip(at);
      return RouteKey(key);
   }
   r.skip(std::min(at + static_cast<std::size_t>(used), text.size()));
   r.expect("})");
   return RouteKey(key);
}

void RouteKeyTypeConverter::gantText(std::string& out) const { Gant::Codec<RouteKeyType>::text(out, value_); }

RouteKeyTypeConverter RouteKeyTypeConverter::gantParse(Gant::TextReader& r) {
   return RouteKeyTypeConverter(Gant::Codec<RouteKeyType>::parse(r));
}

} // namespace Routing::Multicast::Fib
