#include "platform/IpGenAddr.h"

#include "gant/testlib/ValueContract.h"

#include "gant/testlib/Thrown.h"

#include <gtest/gtest.h>

#include <array>
#include <tuple>
#include <sstream>

namespace {

using Pakto::AddressFamily;
using Pakto::IpGenAddr;
using Pakto::IpGenPrefix;

IpGenAddr v4(uint32_t host) { return IpGenAddr(Pakto::IpAddr::fromHost(host)); }

// Eight 16-bit groups, as written in IPv6 text.
IpGenAddr v6(std::array<uint16_t, 8> groups) {
   uint8_t b[16];
   for (int i = 0; i < 8; ++i) {
      b[2 * i] = static_cast<uint8_t>(groups[i] >> 8);
      b[2 * i + 1] = static_cast<uint8_t>(groups[i]);
   }
   return IpGenAddr(AddressFamily::ipv6, b);
}

IpGenPrefix p4(uint32_t host, uint32_t len) { return IpGenPrefix(v4(host), len); }
IpGenPrefix p6(std::array<uint16_t, 8> groups, uint32_t len) { return IpGenPrefix(v6(groups), len); }

std::string zeros(int n) { return std::string(static_cast<std::size_t>(n), '\0'); }

} // namespace

namespace Gant::Test {

template <>
struct ValueSamples<IpGenAddr> : Samples<IpGenAddr> {
   static std::vector<IpGenAddr> distinct() {
      return {IpGenAddr(),
              v4(0),
              v4(1),
              v4(0x01000000),
              v4(0xe0000001),
              v4(0xffffffff),
              v6({}),
              v6({0, 0, 0, 0, 0, 0, 0, 1}),
              v6({0, 0, 0, 0, 0, 0xffff, 0x0102, 0x0304}),
              v6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 1}),
              v6({0xfe80, 0, 0, 0, 0, 0, 0, 1}),
              v6({0xff02, 0, 0, 0, 0, 0, 0, 1}),
              v6({0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff})};
   }
   static std::vector<std::pair<IpGenAddr, std::string>> texts() {
      return {{IpGenAddr(), ""},
              {v4(0x0a000001), "10.0.0.1"},
              {v6({}), "::"},
              {v6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 1}), "2001:db8::1"},
              // RFC 5952: a lone zero group stays, the first of equal runs shrinks.
              {v6({0x2001, 0xdb8, 0, 1, 1, 1, 1, 1}), "2001:db8:0:1:1:1:1:1"},
              {v6({0x2001, 0xdb8, 0, 0, 1, 0, 0, 1}), "2001:db8::1:0:0:1"},
              {v6({0, 0, 0, 0, 0, 0xffff, 0xc000, 0x0201}), "::ffff:192.0.2.1"},
              {v6({0xff02, 0, 0, 0, 0, 1, 0xff00, 1}), "ff02::1:ff00:1"}};
   }
   static std::vector<std::string> badTexts() {
      return {"1.2.3",     ":::",        "2001:db8::1::1", "2001:db8::g", "[::1]",      "::1%eth0",
              "::1/128",   "10.0.0.1/32", "1.2.3.4 ",      " ::1",        "01.2.3.4",   "1:2:3:4:5:6:7:8:9",
              std::string("::1\0", 4), std::string(60, ':'), "::1,"};
   }
   static std::vector<std::pair<std::string, std::string>> badLogs() {
      std::string beyond = "attribute log: IpGenAddr address bytes beyond its family not zero";
      return {{bytes({3}) + zeros(16), "Pakto::AddressFamily value 3 not allowed"},
              {bytes({1, 10, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7}), beyond},
              {bytes({0, 0, 0, 0, 0, 1}) + zeros(11), beyond},
              {bytes({2, 0, 0}), "attribute log truncated at offset 1"}};
   }
};

template <>
struct ValueSamples<IpGenPrefix> : Samples<IpGenPrefix> {
   // 10.0.0.0/24 before 10.0.0.1/8: the address decides before the length,
   // although the length comes first in the layout.
   static std::vector<IpGenPrefix> distinct() {
      return {IpGenPrefix(), p4(0, 0), p4(0, 32), p4(0x0a000000, 8), p4(0x0a000000, 24), p4(0x0a000001, 8),
              p4(0xe0000000, 4), p4(0xffffffff, 32), p6({}, 0), p6({}, 128),
              p6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 0}, 32), p6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 1}, 128),
              p6({0xff00, 0, 0, 0, 0, 0, 0, 0}, 8), p6({0xff02, 0, 0, 0, 0, 0, 0, 1}, 64),
              p6({0xff02, 0, 0, 0, 0, 0, 0, 1}, 128)};
   }
   static std::vector<std::pair<IpGenPrefix, std::string>> texts() {
      return {{IpGenPrefix(), ""},
              {p4(0x0a000000, 8), "10.0.0.0/8"},
              {p4(0, 0), "0.0.0.0/0"},
              {p6({0xff00, 0, 0, 0, 0, 0, 0, 0}, 8), "ff00::/8"},
              {p6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 1}, 128), "2001:db8::1/128"},
              {p6({}, 0), "::/0"}};
   }
   static std::vector<std::string> badTexts() {
      return {"10.0.0.0/33", "ff00::/129", "/8",      "10.0.0.0/",  "10.0.0.0/08", "ff00::/8/8",
              "ff00::/-8",   "ff00/8",     "10.0.0.0/4294967296", "::/256", "x/8", "10.0.0.0 /8"};
   }
   static std::vector<std::pair<std::string, std::string>> badLogs() {
      std::string maxLen = "IpGenPrefix::len > maxLen not allowed";
      return {{bytes({1, 33}) + zeros(16), maxLen},
              {bytes({2, 129}) + zeros(16), maxLen},
              {bytes({0, 1}) + zeros(16), maxLen},
              {bytes({7, 0}) + zeros(16), "Pakto::AddressFamily value 7 not allowed"},
              {bytes({1, 32, 10, 0, 0, 1, 1}) + zeros(11),
               "attribute log: IpGenPrefix address bytes beyond its family not zero"}};
   }
};

INSTANTIATE_TYPED_TEST_SUITE_P(IpGenAddr, ValueContract, ::testing::Types<IpGenAddr>);
INSTANTIATE_TYPED_TEST_SUITE_P(IpGenPrefix, ValueContract, ::testing::Types<IpGenPrefix>);

} // namespace Gant::Test

namespace {

// The family's table is written by hand: each name is the number the logs carry.
TEST(AddressFamily, NamesAndNumbers) {
   using Case = std::tuple<AddressFamily, int, const char*>;
   for (const auto& [af, number, text] :
        {Case{AddressFamily::ipunknown, 0, "'ipunknown'"}, Case{Pakto::ipv4(), 1, "'ipv4'"},
         Case{Pakto::ipv6(), 2, "'ipv6'"}}) {
      EXPECT_EQ(Gant::toText(af), text);
      EXPECT_EQ(Gant::fromText<AddressFamily>(text), af);
      EXPECT_EQ(Gant::toLog(af), Gant::Test::bytes({0, 0, 0, number}));
   }
   const std::string three = Gant::Test::bytes({0, 0, 0, 3});
   EXPECT_EQ(Gant::Test::thrown<Gant::RangeError>([&] { Gant::fromLog<AddressFamily>(three); }),
             "Pakto::AddressFamily value 3 not allowed");
}

TEST(IpGenAddr, IPv4SitsInTheFirstFourBytesInNetworkOrder) {
   IpGenAddr a = v4(0x0a000102);
   const uint8_t expect[16] = {10, 0, 1, 2};
   EXPECT_TRUE(std::equal(a.bytes().begin(), a.bytes().end(), expect));
   EXPECT_EQ(a.v4Addr(), Pakto::IpAddr::fromHost(0x0a000102));
   EXPECT_EQ(Gant::toLog(a), Gant::Test::bytes({1, 10, 0, 1, 2}) + zeros(12));
}

TEST(IpGenAddrDeathTest, NarrowingOrBuildingWithTheWrongFamilyAsserts) {
   EXPECT_DEATH(p6({}, 0).v4Prefix(),
                "Assertion failed: af\\(\\) == ipv4\\(\\) \\|\\| af\\(\\) == ipunknown\\(\\)");
   EXPECT_DEATH(v6({}).v4Addr(), "Assertion failed: af\\(\\) == ipv4\\(\\)");
   EXPECT_DEATH(IpGenAddr().v4Addr(), "Assertion failed: af\\(\\) == ipv4\\(\\)");
   const uint8_t four[4] = {1, 2, 3, 4};
   EXPECT_DEATH(IpGenAddr(AddressFamily::ipv6, four),
                "Assertion failed: af <= AddressFamily::ipv6 && bytes.size\\(\\) == addressBytes\\(af\\)");
}

TEST(IpGenPrefix, WidensAndNarrowsIPv4) {
   Pakto::Prefix p(Pakto::IpAddr::fromHost(0x30640100), 32);
   IpGenPrefix g(p);
   EXPECT_EQ(g, p4(0x30640100, 32));
   EXPECT_EQ(g.v4Prefix(), p);
   EXPECT_EQ(IpGenPrefix().v4Prefix(), Pakto::Prefix()) << "family-less narrows to 0.0.0.0/0";
   EXPECT_EQ(Gant::toLog(p4(0x0a010203, 24)), Gant::Test::bytes({1, 24, 10, 1, 2, 3}) + zeros(12));
}

TEST(IpGenPrefix, LengthIsBoundedByTheFamily) {
   EXPECT_EQ(IpGenPrefix(IpGenAddr(), 0), IpGenPrefix());
   for (auto make : {+[] { return p4(0, 33); }, +[] { return p6({}, 129); },
                     +[] { return IpGenPrefix(IpGenAddr(), 1); }, +[] { return p6({}, 256); }}) {
      EXPECT_EQ(Gant::Test::thrown<Gant::RangeError>([&] { (void)make(); }),
                "IpGenPrefix::len > maxLen not allowed");
   }
}

TEST(IpGenPrefix, MulticastHostAndDefaultOfAddressesAndPrefixes) {
   EXPECT_TRUE(v4(0xe0000000).isMulticast());
   EXPECT_FALSE(v4(0xdfffffff).isMulticast());
   EXPECT_FALSE(v4(0xf0000000).isMulticast());
   EXPECT_TRUE(v6({0xff00, 0, 0, 0, 0, 0, 0, 0}).isMulticast());
   EXPECT_FALSE(v6({0xfeff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff}).isMulticast());
   EXPECT_FALSE(IpGenAddr().isMulticast());
   EXPECT_TRUE(p4(0xe0000000, 4).isMulticast());
   EXPECT_FALSE(p4(0xe0000000, 3).isMulticast());
   EXPECT_TRUE(p6({0xff00, 0, 0, 0, 0, 0, 0, 0}, 8).isMulticast());
   EXPECT_FALSE(p6({0xff00, 0, 0, 0, 0, 0, 0, 0}, 7).isMulticast());
   EXPECT_FALSE(p6({0xfe80, 0, 0, 0, 0, 0, 0, 0}, 10).isMulticast());
   EXPECT_FALSE(IpGenPrefix().isMulticast());

   EXPECT_TRUE(p4(0x0a000001, 32).isHost());
   EXPECT_FALSE(p6({0, 0, 0, 0, 0, 0, 0, 1}, 32).isHost()) << "32 is not full length for IPv6";
   EXPECT_TRUE(p6({0, 0, 0, 0, 0, 0, 0, 1}, 128).isHost());
   EXPECT_FALSE(IpGenPrefix().isHost());

   EXPECT_TRUE(IpGenPrefix().isDefault());
   EXPECT_TRUE(!IpGenPrefix());
   EXPECT_FALSE(!p4(0, 0)) << "0.0.0.0/0 has a family, so it is not the default prefix";
   EXPECT_FALSE(!p6({}, 0));
}

TEST(IpGenPrefix, BareAddressReadsAsHostPrefix) {
   EXPECT_EQ(Gant::fromText<IpGenPrefix>("10.0.0.1"), p4(0x0a000001, 32));
   EXPECT_EQ(Gant::fromText<IpGenPrefix>("ff02::1"), p6({0xff02, 0, 0, 0, 0, 0, 0, 1}, 128));
   std::ostringstream os;
   os << p6({0xff00, 0, 0, 0, 0, 0, 0, 0}, 8) << ' ' << v4(0x0a000001) << ' ' << IpGenPrefix() << '.';
   EXPECT_EQ(os.str(), "ff00::/8 10.0.0.1 .");
}

TEST(IpGenPrefix, HashSeparatesWhatEqualitySeparates) {
   // Family, length and each address word must all reach the hash.
   std::vector<IpGenPrefix> v = {p4(0, 0), p6({}, 0), p4(0, 1), p6({0, 0, 0, 0, 0, 0, 0, 1}, 128),
                                 p6({0, 0, 0, 0, 0, 1, 0, 0}, 128), p6({0, 0, 0, 1, 0, 0, 0, 0}, 128),
                                 p6({0, 1, 0, 0, 0, 0, 0, 0}, 128), p6({}, 128)};
   for (std::size_t i = 0; i < v.size(); ++i)
      for (std::size_t j = i + 1; j < v.size(); ++j)
         EXPECT_NE(v[i].hash(), v[j].hash()) << v[i] << " " << v[j];
}

} // namespace
