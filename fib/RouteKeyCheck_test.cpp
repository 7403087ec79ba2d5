// The checking reading of route keys: every form the library prints reads
// back to the same key, and layouts no builder makes are refused, never
// handed to the asserting accessors.
#include "fib/RouteKeyCheck.h"

#include <gtest/gtest.h>

#include <cstring>

namespace Routing::Multicast::Fib {
namespace {

Pakto::IpGenPrefix prefix(const char* text) { return Gant::fromText<Pakto::IpGenPrefix>(text); }

// The pretty texts are quoted by operators and tools: exact, and each reads
// back, as does every text form.
TEST(RouteKeyCheck, EveryPrintedFormIsExactAndReadsBack) {
   const auto mac = Gant::fromText<Pakto::EthAddr>("01:00:5e:01:02:03");
   const std::pair<IpGenRouteKey, const char*> keys[] = {
       {invalidRouteKey(), "Unknown Type"},
       {makeRouteKeyVlanFloodset(1), "vlan1 Floodset"},
       {makeRouteKeyMulticastFloodset(4094), "vlan4094 Multicast Floodset"},
       {makeRouteKeyVxlanCoreSideFloodset(30), "vlan30 Vxlan CoreSide Floodset"},
       {makeRouteKeyEthGroup(100, mac), "vlan100 01:00:5e:01:02:03"},
       {makeRouteKeyMcastGroup(::Multicast::Group::GroupKey(19, 65535, 77)), "Mcast Group Kind 19 Index 65535"},
       {makeRouteKeyEvpnMultihomeFloodset(10, Gant::fromText<Pakto::IpGenAddr>("10.1.1.1")),
        "vlan10 10.1.1.1 EvpnMultihomeFloodset"},
       {IpGenRouteKey(prefix("10.0.0.1/32"), prefix("239.1.1.1/32")), "(10.0.0.1,239.1.1.1)"},
       {IpGenRouteKey(prefix("0.0.0.0/0"), prefix("239.1.1.1/32")), "(*,239.1.1.1)"},
       {IpGenRouteKey(prefix("10.0.0.0/8"), prefix("239.1.1.1/32")), "(10.0.0.0/8,239.1.1.1)"},
       {IpGenRouteKey(prefix("10.0.0.1/32"), prefix("239.1.0.0/16")), "(10.0.0.1,239.1.0.0/16)"},
       {IpGenRouteKey(prefix("2001:db8::1/128"), prefix("ff3e::8000:1/128")), "(2001:db8::1,ff3e::8000:1)"},
       {IpGenRouteKey(prefix("2001:db8::/32"), prefix("ff3e::/96")), "(2001:db8::/32,ff3e::/96)"},
       {IpGenRouteKey(prefix("::/0"), prefix("ff3e::1/128")), "(*,ff3e::1)"},
   };
   for (const auto& [key, pretty] : keys) {
      EXPECT_EQ(key.pretty(), pretty);
      std::vector<std::string> texts = {key.pretty(), Gant::toText(key)};
      if (key.g().af() != Pakto::ipv6()) texts.push_back(Gant::toText(RouteKey(key)));
      for (const std::string& text : texts) {
         SCOPED_TRACE(text);
         std::string why;
         const auto read = parseRouteKeyChecked(text, why);
         ASSERT_TRUE(read) << why;
         EXPECT_EQ(*read, key);
      }
   }
   // The (*,G) text never shows the group's length, so it alone cannot read back.
   EXPECT_EQ(IpGenRouteKey(prefix("0.0.0.0/0"), prefix("239.1.0.0/16")).pretty(), "(*,239.1.0.0)");
}

TEST(RouteKeyCheck, LayoutsNoBuilderMakesHaveNoKind) {
   auto v4 = [](uint32_t s, uint32_t g) {
      return IpGenRouteKey(Pakto::IpGenPrefix(Pakto::Prefix(Pakto::IpAddr::fromHost(s), 32)),
                           Pakto::IpGenPrefix(Pakto::Prefix(Pakto::IpAddr::fromHost(g), 32)));
   };
   IpGenRouteKey badFamily;
   std::memset(static_cast<void*>(&badFamily), 7, sizeof badFamily);
   const IpGenRouteKey bad[] = {
       IpGenRouteKey(prefix("::/0"), prefix("2001::1/128")),              // IPv6 group, not multicast
       v4(0, 8u << 28), v4(0, 13u << 28 | 10 << 16),                      // kind nibbles 8..13
       v4(0, 1u << 28), v4(0, 1u << 28 | 0xfff << 16),                    // VLAN 0 and 4095
       IpGenRouteKey(prefix("2001::1/128"), v4(0, 3u << 28 | 10 << 16).g()), // IPv6 source, IPv4 kind
       badFamily,
   };
   for (const IpGenRouteKey& key : bad) {
      SCOPED_TRACE(Gant::toText(key.s()) + " " + Gant::toText(key.g()));
      EXPECT_EQ(checkedKind(key), std::nullopt);
   }
   EXPECT_EQ(checkedKind(v4(0, 14u << 28)), RouteKeyType::mroute);
   EXPECT_EQ(checkedKind(v4(0, 0x0a000001)), RouteKeyType::unknownRouteKeyType);
}

} // namespace
} // namespace Routing::Multicast::Fib
