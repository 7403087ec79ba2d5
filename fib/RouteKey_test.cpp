// Route keys: every kind's encoding, accessors, text form and parse (or the
// death of each kind whose text does not read back). Pretty texts are
// RouteKeyCheck_test's, beside their reading back.
#include "fib/RouteKey.h"
#include "gant/testlib/ValueContract.h"

#include "gant/testlib/Thrown.h"

#include <gtest/gtest.h>

namespace {

using namespace Routing::Multicast::Fib;
using Pakto::EthAddr;
using Pakto::IpGenPrefix;
using Pakto::Prefix;

Prefix pfx(const char* text) { return Gant::fromText<Prefix>(text); }
IpGenPrefix gpfx(const char* text) { return Gant::fromText<IpGenPrefix>(text); }
const EthAddr mac(0x01, 0x00, 0x5e, 0x01, 0x02, 0x03);

TEST(RouteKey, EncodingOfEveryKind) {
   auto vlan = makeRouteKeyVlanFloodset(10);
   EXPECT_EQ(vlan.g(), gpfx("16.10.0.0/32"));
   EXPECT_EQ(vlan.s(), gpfx("0.0.0.0/0"));
   EXPECT_EQ(vlan.kind(), RouteKeyType::vlanFloodset);
   EXPECT_EQ(vlan.vlanId(), 10);
   EXPECT_EQ(vlan.ethAddr(), EthAddr()) << "no MAC in a flood set, and no failure either";

   EXPECT_EQ(makeRouteKeyMulticastFloodset(4094).g(), gpfx("47.254.0.0/32"));
   EXPECT_EQ(makeRouteKeyVxlanCoreSideFloodset(1).g(), gpfx("80.1.0.0/32"));

   auto eth = makeRouteKeyEthGroup(100, mac);
   EXPECT_EQ(eth.g(), gpfx("48.100.1.0/32"));
   EXPECT_EQ(eth.s(), gpfx("94.1.2.3/32"));
   EXPECT_EQ(eth.kind(), RouteKeyType::ethGroup);
   EXPECT_EQ(eth.ethAddr(), mac);
   EXPECT_EQ(eth.vlanId(), 100);

   auto group = makeRouteKeyMcastGroup(Multicast::Group::GroupKey(19, 5, 77));
   EXPECT_EQ(group.s(), gpfx("0.19.0.5/32"));
   EXPECT_EQ(group.g(), gpfx("64.0.0.0/32"));
   EXPECT_EQ(group.mcastGroup(), Multicast::Group::GroupKey(19, 5, 0)) << "the hash is not stored";

   auto tep = Gant::fromText<Pakto::IpGenAddr>("10.1.2.3");
   auto evpn = makeRouteKeyEvpnMultihomeFloodset(7, tep);
   EXPECT_EQ(evpn.s(), gpfx("10.1.2.3/32"));
   EXPECT_EQ(evpn.g(), gpfx("96.7.0.0/32"));
   EXPECT_EQ(evpn.evpnTepIp(), tep);

   auto sg = makeRouteKeyMroute(pfx("10.0.0.1/32"), pfx("239.1.1.1/32"));
   EXPECT_EQ(sg.kind(), RouteKeyType::mroute);
   EXPECT_EQ(IpGenRouteKey(gpfx("::/0"), gpfx("ff3e::1/128")).kind(), RouteKeyType::mroute);

   EXPECT_EQ(invalidRouteKey(), IpGenRouteKey());
   EXPECT_EQ(invalidRouteKey().kind(), RouteKeyType::unknownRouteKeyType);
}

TEST(RouteKey, Ipv4FormAgreesWithTheGenericForm) {
   for (const IpGenRouteKey& k :
        {makeRouteKeyVlanFloodset(10), makeRouteKeyEthGroup(100, mac),
         makeRouteKeyMcastGroup(Multicast::Group::GroupKey(20, 65535)),
         makeRouteKeyEvpnMultihomeFloodset(9, Gant::fromText<Pakto::IpGenAddr>("1.1.1.1")),
         makeRouteKeyMroute(pfx("0.0.0.0/0"), pfx("239.0.0.0/8"))}) {
      RouteKey v4(k);
      EXPECT_EQ(IpGenRouteKey(v4), k);
      EXPECT_EQ(v4.kind(), k.kind());
      EXPECT_EQ(v4.pretty(), k.pretty());
   }
   // Only the nibble decides on the IPv4 form: 240/4 is an IP route too.
   EXPECT_EQ(RouteKey(pfx("0.0.0.0/0"), pfx("240.0.0.0/32")).kind(), RouteKeyType::mroute);
   EXPECT_EQ(RouteKey().kind(), RouteKeyType::unknownRouteKeyType);
}

TEST(RouteKey, TextFormsCharacterForCharacter) {
   const auto evpn = makeRouteKeyEvpnMultihomeFloodset(10, Gant::fromText<Pakto::IpGenAddr>("2.2.2.2"));
   const std::string head = "Value('Routing::Multicast::Fib::IpGenRouteKey', ** {";
   const auto sg = makeRouteKeyMroute(pfx("10.0.0.1/32"), pfx("239.1.1.1/32"));
   EXPECT_EQ(Gant::toText(sg), head + "'s': 10.0.0.1/32, 'g': 239.1.1.1/32})");
   const std::vector<std::pair<IpGenRouteKey, std::string>> texts = {
       {sg, "'kind': 'mroute', 's': 10.0.0.1/32, 'g': 239.1.1.1/32})"},
       {makeRouteKeyVlanFloodset(10), "'kind': 'vlanFloodset', 'vlanId': 10})"},
       {makeRouteKeyMulticastFloodset(11), "'kind': 'multicastFloodset', 'vlanId': 11})"},
       {makeRouteKeyVxlanCoreSideFloodset(12), "'kind': 'vxlanCoreSideFloodset', 'vlanId': 12})"},
       {makeRouteKeyEthGroup(100, mac), "'kind': 'ethGroup', 'vlanId': 100, 'ethGroup': 01:00:5e:01:02:03})"},
       {makeRouteKeyMcastGroup(Multicast::Group::GroupKey(19, 5)), "'kind': 'mcastGroup', 'kind': 19, 'index': 5})"},
       {evpn, "'kind': 'evpnMultihomeFloodset', 'vlanID': 10, 'Peer VTEP IP': 2.2.2.2})"},
       {invalidRouteKey(), "'kind': 'unknownRouteKeyType'})"}};
   for (const auto& [key, text] : texts) EXPECT_EQ(Gant::toText(RouteKey(key)), head + text);
   EXPECT_EQ(Gant::toText(RouteKeyTypeConverter(RouteKeyType::ethGroup)), "'ethGroup'");
   EXPECT_EQ(RouteKeyTypeConverter(RouteKeyType::mroute).intValue(), 7u);
}

// Texts of the kinds that read back are the value contract's; a VLAN out of
// range is the platform's range error, not an assertion.
TEST(RouteKey, ParseRefusesAVlanOutOfRange) {
   EXPECT_EQ(Gant::Test::thrown<Gant::RangeError>([&] {
                return Gant::fromText<RouteKey>(
                    "Value('Routing::Multicast::Fib::IpGenRouteKey', ** {'kind': 'vlanFloodset', 'vlanId': 4095})");
             }),
             "VlanId::value < 1 or > 4094 not allowed");
}

TEST(RouteKeyDeathTest, KindsWhoseTextDoesNotReadBack) {
   std::string evpn = Gant::toText(
       RouteKey(makeRouteKeyEvpnMultihomeFloodset(10, Gant::fromText<Pakto::IpGenAddr>("1.1.1.1"))));
   EXPECT_DEATH(Gant::fromText<RouteKey>(evpn), "matches == 2");
   std::string group = Gant::toText(RouteKey(makeRouteKeyMcastGroup(Multicast::Group::GroupKey(19, 5))));
   EXPECT_DEATH(Gant::fromText<RouteKey>(group), "matches == 2");
   EXPECT_DEATH(Gant::fromText<RouteKey>("Value('Routing::Multicast::Fib::RouteKey', ** {})"), "matches == 1");
   EXPECT_DEATH(Gant::fromText<RouteKey>("Value('Routing::Multicast::Fib::IpGenRouteKey', ** {'kind': "
                                         "'ethGroup', 'vlanId': 3})"),
                "matches == 2");
}

TEST(RouteKeyDeathTest, AccessorsGuardTheirKind) {
   auto sg = makeRouteKeyMroute(pfx("10.0.0.1/32"), pfx("239.1.1.1/32"));
   auto vlan = makeRouteKeyVlanFloodset(10);
   EXPECT_DEATH(sg.vlanId(), "type == vlanFloodset_ or type == multicastFloodset_ or type == "
                             "vxlanCoreSideFloodset_ or type == ethGroup_ or type == evpnMultihomeFloodset_");
   EXPECT_DEATH(RouteKey(sg).vlanId(), "key.kind\\(\\) != mroute_");
   EXPECT_DEATH(sg.ethAddr(), "type not_eq mroute_");
   EXPECT_DEATH(RouteKey(sg).ethAddr(), "type != mroute_");
   EXPECT_DEATH(vlan.mcastGroup(), "type == mcastGroup_");
   EXPECT_DEATH(RouteKey(vlan).mcastGroup(), "type == mcastGroup_");
   EXPECT_DEATH(vlan.evpnTepIp(), "type == evpnMultihomeFloodset_");
   EXPECT_DEATH(IpGenRouteKey(gpfx("::/0"), gpfx("2001:db8::/32")).kind(), "g\\(\\).af\\(\\) == Pakto::ipv4\\(\\)");
   EXPECT_DEATH(RouteKey(pfx("0.0.0.0/0"), pfx("128.0.0.0/32")).pretty(), "Unexpected RouteKey type");
   // The 12 VLAN bits of a hand-made key can be 0: a range error, not a death.
   EXPECT_THROW(RouteKey(pfx("0.0.0.0/0"), pfx("16.0.0.0/32")).vlanId(), Gant::RangeError);
}

TEST(RouteKey, HashesAreExact) {
   // Wang's mix of (address ^ length) per prefix, XORed, folded once.
   EXPECT_EQ(RouteKey(pfx("10.0.0.1/32"), pfx("239.1.1.1/32")).hash(), 0x853fa798u);
   EXPECT_EQ(RouteKey(makeRouteKeyVlanFloodset(10)).hash(), 0x8bd76ecfu);
   // The generic key's hash agrees with equality and separates neighbours.
   auto a = makeRouteKeyMroute(pfx("10.0.0.1/32"), pfx("239.1.1.1/32"));
   auto b = makeRouteKeyMroute(pfx("10.0.0.2/32"), pfx("239.1.1.1/32"));
   EXPECT_EQ(a.hash(), IpGenRouteKey(a).hash());
   EXPECT_NE(a.hash(), b.hash());
}

} // namespace

namespace Gant::Test {

using namespace Routing::Multicast::Fib;

template <>
struct ValueSamples<IpGenRouteKey> : Samples<IpGenRouteKey> {
   // Ascending: by g, then s.
   static std::vector<IpGenRouteKey> distinct() {
      return {invalidRouteKey(),
              makeRouteKeyVlanFloodset(10),
              makeRouteKeyEthGroup(100, mac),
              makeRouteKeyMroute(pfx("0.0.0.0/0"), pfx("239.1.1.1/32")),
              makeRouteKeyMroute(pfx("10.0.0.1/32"), pfx("239.1.1.1/32")),
              makeRouteKeyMroute(pfx("10.0.0.2/32"), pfx("239.1.1.1/32")),
              IpGenRouteKey(gpfx("2001:db8::1/128"), gpfx("ff3e::1/128"))};
   }
   static std::vector<std::pair<IpGenRouteKey, std::string>> texts() {
      return {{IpGenRouteKey(gpfx("2001:db8::1/128"), gpfx("ff3e::1/128")),
               "Value('Routing::Multicast::Fib::IpGenRouteKey', ** {'s': 2001:db8::1/128, 'g': ff3e::1/128})"}};
   }
   static std::vector<std::string> badTexts() {
      return {"Value('Routing::Multicast::Fib::IpGenRouteKey', ** {'g': 1.1.1.1/32, 's': 1.1.1.1/32})",
              "Value('Routing::Multicast::Fib::IpGenRouteKey', ** {'s': 1.1.1.1/33, 'g': 1.1.1.1/32})"};
   }
};

template <>
struct ValueSamples<RouteKey> : Samples<RouteKey> {
   // Only kinds whose text reads back; ascending by g, then s.
   static std::vector<RouteKey> distinct() {
      return {RouteKey(), RouteKey(makeRouteKeyVlanFloodset(10)), RouteKey(makeRouteKeyMulticastFloodset(4094)),
              RouteKey(makeRouteKeyEthGroup(100, mac)), RouteKey(makeRouteKeyVxlanCoreSideFloodset(7)),
              RouteKey(pfx("0.0.0.0/0"), pfx("224.0.0.0/4")), RouteKey(pfx("0.0.0.0/0"), pfx("239.1.1.1/32")),
              RouteKey(pfx("10.0.0.1/32"), pfx("239.1.1.1/32"))};
   }
   static std::vector<std::pair<RouteKey, std::string>> texts() {
      return {{RouteKey(pfx("10.0.0.0/8"), pfx("239.1.1.1/32")),
               "Value('Routing::Multicast::Fib::IpGenRouteKey', ** {'kind': 'mroute', 's': 10.0.0.0/8, 'g': "
               "239.1.1.1/32})"}};
   }
};

using KeyTypes = ::testing::Types<IpGenRouteKey, RouteKey>;
INSTANTIATE_TYPED_TEST_SUITE_P(RouteKeys, ValueContract, KeyTypes);

} // namespace Gant::Test
