// The checking reading of route keys: every text form the library writes,
// refused with a reason instead of an assertion.
#include "fib/RouteKeyCheck.h"

#include <exception>

namespace Routing::Multicast::Fib {

namespace {

using Kind = RouteKeyType;

bool hasVlan(Kind k) {
   return k == Kind::vlanFloodset || k == Kind::multicastFloodset || k == Kind::ethGroup ||
          k == Kind::vxlanCoreSideFloodset || k == Kind::evpnMultihomeFloodset;
}

// A cursor over the text; the first failure says what was expected where.
class Scan {
 public:
   Scan(std::string_view text, std::string& why) : rest_(text), why_(why) {}

   bool fail(const std::string& what) {
      if (why_.empty())
         why_ = "expected " + what + (rest_.empty() ? std::string(" at the end") : " at '" + std::string(rest_) + "'");
      return false;
   }
   bool bad(const std::string& reason) {
      if (why_.empty()) why_ = reason;
      return false;
   }
   bool lit(std::string_view s) {
      if (!rest_.starts_with(s)) return false;
      rest_.remove_prefix(s.size());
      return true;
   }
   bool need(std::string_view s) { return lit(s) || fail("'" + std::string(s) + "'"); }
   bool end() { return rest_.empty() || fail("nothing more"); }
   // Everything up to the first of stops (or the end).
   std::string_view token(std::string_view stops) {
      const std::size_t n = std::min(rest_.find_first_of(stops), rest_.size());
      std::string_view t = rest_.substr(0, n);
      rest_.remove_prefix(n);
      return t;
   }
   bool number(uint32_t max, const char* what, uint32_t& out) {
      std::string_view digits = token(" ,)}'/");
      uint64_t v = 0;
      bool ok = !digits.empty() && digits.size() <= 10;
      for (char c : digits) {
         ok = ok && c >= '0' && c <= '9';
         v = v * 10 + static_cast<uint64_t>(c - '0');
      }
      if (!ok) return bad(std::string("bad ") + what + " '" + std::string(digits) + "': not a decimal number");
      if (v > max)
         return bad(std::string("bad ") + what + " '" + std::string(digits) + "': more than " + std::to_string(max));
      out = static_cast<uint32_t>(v);
      return true;
   }
   bool vlan(std::optional<Bridging::VlanId>& out) {
      uint32_t n = 0;
      if (!number(0xffffffffu, "VLAN", n)) return false;
      return convert("VLAN", std::to_string(n), [&] { out = Bridging::VlanId(n); });
   }
   // Text read by the value type's own parser, its errors kept.
   template <class T>
   bool value(const char* what, std::string_view text, std::optional<T>& out) {
      return convert(what, text, [&] { out = Gant::fromText<T>(text); });
   }
   template <class F>
   bool convert(const char* what, std::string_view text, F f) {
      try {
         f();
         return true;
      } catch (const std::exception& e) {
         return bad(std::string("bad ") + what + " '" + std::string(text) + "': " + e.what());
      }
   }
   std::string_view rest() const { return rest_; }

 private:
   std::string_view rest_;
   std::string& why_;
};

// A key of a kind that writes a VLAN and nothing else.
IpGenRouteKey vlanKey(Kind kind, Bridging::VlanId vlan) {
   return kind == Kind::vlanFloodset        ? makeRouteKeyVlanFloodset(vlan)
          : kind == Kind::multicastFloodset ? makeRouteKeyMulticastFloodset(vlan)
                                            : makeRouteKeyVxlanCoreSideFloodset(vlan);
}

bool groupKey(Scan& in, std::optional<IpGenRouteKey>& key, const char* between) {
   uint32_t kind = 0, index = 0;
   if (!in.number(0xffff, "group kind", kind) || !in.need(between) || !in.number(0xffff, "group index", index))
      return false;
   key = makeRouteKeyMcastGroup(
       ::Multicast::Group::GroupKey(static_cast<uint16_t>(kind), static_cast<uint16_t>(index)));
   return true;
}

bool evpnKey(Scan& in, Bridging::VlanId vlan, std::string_view tepText, std::optional<IpGenRouteKey>& key) {
   std::optional<Pakto::IpAddr> tep;
   if (!in.value("tunnel endpoint", tepText, tep)) return false;
   key = makeRouteKeyEvpnMultihomeFloodset(vlan, Pakto::IpGenAddr(*tep));
   return true;
}

// "(S,G)", "(*,G)"; a prefix without its length is a host prefix.
bool prettyMroute(Scan& in, std::optional<IpGenRouteKey>& key) {
   const std::string_view sText = in.token(",)");
   if (!in.need(",")) return false;
   const std::string_view gText = in.token(",)");
   std::optional<Pakto::IpGenPrefix> s, g;
   if (!in.need(")") || !in.end() || !in.value("group", gText, g)) return false;
   if (sText == "*") {
      if (!in.value("source", g->af() == Pakto::AddressFamily::ipv6 ? "::/0" : "0.0.0.0/0", s)) return false;
   } else if (!in.value("source", sText, s)) {
      return false;
   }
   if (!g->isMulticast()) return in.bad("group '" + std::string(gText) + "' is not a multicast prefix");
   if (s->af() != g->af()) return in.bad("source and group of different address families");
   key = IpGenRouteKey(*s, *g);
   return true;
}

// "vlan10 Floodset", "vlan100 01:00:5e:01:02:03", "vlan10 10.0.0.1 EvpnMultihomeFloodset"...
bool prettyVlan(Scan& in, std::optional<IpGenRouteKey>& key) {
   std::optional<Bridging::VlanId> vlan;
   if (!in.vlan(vlan)) return false;
   if (in.lit(" Floodset")) key = makeRouteKeyVlanFloodset(*vlan);
   else if (in.lit(" Multicast Floodset")) key = makeRouteKeyMulticastFloodset(*vlan);
   else if (in.lit(" Vxlan CoreSide Floodset")) key = makeRouteKeyVxlanCoreSideFloodset(*vlan);
   else if (!in.need(" ")) return false;
   if (key) return in.end();
   const std::string_view word = in.token(" ");
   if (in.lit(" EvpnMultihomeFloodset")) return in.end() && evpnKey(in, *vlan, word, key);
   std::optional<Pakto::EthAddr> mac;
   if (!in.end() || !in.value("MAC address", word, mac)) return false;
   key = makeRouteKeyEthGroup(*vlan, *mac);
   return true;
}

// The IPv4 form's fields behind its kind, as the writer writes them and as
// the asserting parse reads them.
bool kindFields(Scan& in, Kind kind, std::optional<IpGenRouteKey>& key) {
   std::optional<Bridging::VlanId> vlan;
   switch (kind) {
   case Kind::unknownRouteKeyType: key = invalidRouteKey(); return true;
   case Kind::vlanFloodset:
   case Kind::multicastFloodset:
   case Kind::vxlanCoreSideFloodset:
      if (!in.need(", 'vlanId': ") || !in.vlan(vlan)) return false;
      key = vlanKey(kind, *vlan);
      return true;
   case Kind::ethGroup: {
      if (!in.need(", 'vlanId': ") || !in.vlan(vlan) || !in.need(", 'ethGroup': ")) return false;
      std::optional<Pakto::EthAddr> mac;
      if (!in.value("MAC address", in.token("}"), mac)) return false;
      key = makeRouteKeyEthGroup(*vlan, *mac);
      return true;
   }
   case Kind::mcastGroup:
      // The writer's "'index': " or the asserting parse's "'index' : ".
      if (!in.need(", 'kind': ")) return false;
      return groupKey(in, key, in.rest().find("'index' : ") != std::string_view::npos ? ", 'index' : " : ", 'index': ");
   case Kind::evpnMultihomeFloodset:
      if (!(in.lit(", 'vlanID': ") || in.need(", 'vlanId': ")) || !in.vlan(vlan) || !in.need(", 'Peer VTEP IP': "))
         return false;
      return evpnKey(in, *vlan, in.token("}"), key);
   case Kind::mroute: {
      std::optional<Pakto::Prefix> s, g;
      if (!in.need(", 's': ") || !in.value("source", in.token(","), s) || !in.need(", 'g': ") ||
          !in.value("group", in.token("}"), g))
         return false;
      key = makeRouteKeyMroute(*s, *g);
      return true;
   }
   }
   return false;
}

bool textForm(Scan& in, std::string_view text, std::optional<IpGenRouteKey>& key) {
   if (!in.need("Value('Routing::Multicast::Fib::IpGenRouteKey', ** {")) return false;
   if (in.rest().starts_with("'s': ")) {
      std::optional<IpGenRouteKey> k;
      if (!in.value("key text", text, k)) return false;
      key = k;
      return true;
   }
   if (!in.need("'kind': '")) return false;
   const std::string_view name = in.token("'");
   const std::optional<Kind> kind = routeKeyTypeNamed(name);
   if (!kind) return in.bad("unknown key kind '" + std::string(name) + "'");
   if (!in.need("'") || !kindFields(in, *kind, key) || !in.need("})") || !in.end()) return false;
   if (checkedKind(*key) != kind)
      return in.bad("its fields lay out no " + std::string(stringValue(*kind)) + " key");
   return true;
}

} // namespace

std::optional<RouteKeyType> checkedKind(const IpGenRouteKey& key) noexcept {
   const Pakto::IpGenPrefix& s = key.s();
   const Pakto::IpGenPrefix& g = key.g();
   if (!s.gantValid() || !g.gantValid()) return std::nullopt;
   if (g.isMulticast()) return Kind::mroute;
   if (g.isDefault()) return Kind::unknownRouteKeyType;
   if (g.af() != Pakto::AddressFamily::ipv4) return std::nullopt;
   const uint32_t group = g.v4Prefix().address().hostValue();
   const uint32_t n = group >> 28;
   if (n == 14 || n == 15 || n == static_cast<uint32_t>(Kind::mroute)) return Kind::mroute;
   if (n > static_cast<uint32_t>(Kind::mroute)) return std::nullopt;
   const auto kind = static_cast<Kind>(n);
   if (s.af() == Pakto::AddressFamily::ipv6) return std::nullopt;
   const uint32_t vlan = (group >> 16) & 0xfff;
   if (hasVlan(kind) && (vlan == 0 || vlan == 0xfff)) return std::nullopt;
   return kind;
}

std::optional<RouteKeyType> routeKeyTypeNamed(std::string_view name) noexcept {
   uint32_t v = 0;
   if (!gantEnumInfo(RouteKeyType{}).valueOf(name, v)) return std::nullopt;
   return static_cast<RouteKeyType>(v);
}

std::optional<IpGenRouteKey> parseRouteKeyChecked(std::string_view text, std::string& why) {
   why.clear();
   // Blanks around a pasted key are not part of it.
   const std::size_t first = text.find_first_not_of(" \t\n");
   text = text.substr(std::min(first, text.size()));
   text = text.substr(0, text.find_last_not_of(" \t\n") + 1);
   std::optional<IpGenRouteKey> key;
   try {
      Scan in(text, why);
      bool ok = false;
      if (in.lit("Unknown Type")) {
         key = invalidRouteKey();
         ok = in.end();
      } else if (in.lit("(")) {
         ok = prettyMroute(in, key);
      } else if (in.lit("vlan")) {
         ok = prettyVlan(in, key);
      } else if (in.lit("Mcast Group Kind ")) {
         ok = groupKey(in, key, " Index ") && in.end();
      } else if (text.starts_with("Value(")) {
         ok = textForm(in, text, key);
      } else {
         ok = in.fail("a route key: (S,G), (*,G), vlanN ..., Mcast Group Kind ... or Value(...)");
      }
      if (ok && !checkedKind(*key)) ok = in.bad("its prefixes lay out no route key kind");
      if (ok) return key;
   } catch (const std::exception& e) {
      why = e.what();
   }
   if (why.empty()) why = "not a route key";
   return std::nullopt;
}

} // namespace Routing::Multicast::Fib
