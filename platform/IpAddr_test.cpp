#include "platform/IpAddr.h"

#include "gant/testlib/ValueContract.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

namespace {

Pakto::IpAddr ip(uint32_t host) { return Pakto::IpAddr::fromHost(host); }
Pakto::Prefix pfx(uint32_t host, uint32_t len) { return Pakto::Prefix(ip(host), len); }

} // namespace

namespace Gant::Test {

using Pakto::IpAddr;
using Pakto::Prefix;

template <>
struct ValueSamples<IpAddr> : Samples<IpAddr> {
   // 0.0.0.1 < 1.0.0.0 catches an order taken from the network-order word.
   static std::vector<IpAddr> distinct() {
      return {IpAddr(),         ip(0x00000001), ip(0x00000100), ip(0x01000000), ip(0x0a000001),
              ip(0x7fffffff),   ip(0xe0000000), ip(0xefffffff), ip(0xffffffff)};
   }
   static std::vector<std::pair<IpAddr, std::string>> texts() {
      return {{IpAddr(), "0.0.0.0"}, {ip(0x0a000001), "10.0.0.1"}, {ip(0xffffffff), "255.255.255.255"},
              {ip(0xc0a80a64), "192.168.10.100"}};
   }
   static std::vector<std::string> badTexts() {
      return {"",          "1.2.3",      "1.2.3.4.5", "256.0.0.1",  "01.2.3.4",  "1.2.3.4 ",
              " 1.2.3.4",  "1..2.3",     "1.2.3.-4",  "a.b.c.d",    "1.2.3.4/32", "+1.2.3.4",
              "1.2.3.4x",  "1.2.3.",     ".1.2.3",    "1.2.3.1000", "0x1.2.3.4", "1.2.3.4,5"};
   }
   static std::vector<std::pair<std::string, std::string>> badLogs() {
      return {{bytes({10, 0, 0}), "attribute log truncated at offset 0"}};
   }
};

template <>
struct ValueSamples<Prefix> : Samples<Prefix> {
   static std::vector<Prefix> distinct() {
      return {Prefix(),         pfx(0, 32),          pfx(1, 32),          pfx(0x0a000000, 8),
              pfx(0x0a000000, 24), pfx(0x0a000001, 8), pfx(0xe0000000, 4), pfx(0xffffffff, 32)};
   }
   static std::vector<std::pair<Prefix, std::string>> texts() {
      return {{pfx(0x0a000000, 8), "10.0.0.0/8"}, {Prefix(), "0.0.0.0/0"},
              {pfx(0xeffffffe, 32), "239.255.255.254/32"}, {pfx(0x0a000001, 8), "10.0.0.1/8"}};
   }
   static std::vector<std::string> badTexts() {
      return {"",           "10.0.0.0/",  "10.0.0.0/33", "10.0.0.0/08", "/8",
              "10.0.0.0/8/8", "10.0.0.0/-1", "10.0.0.0/4294967296", "10.0.0/8", "10.0.0.0/ 8",
              "10.0.0.0 /8", "10.0.0.0/+8"};
   }
   static std::vector<std::pair<std::string, std::string>> badLogs() {
      return {{bytes({10, 0, 0, 0, 0, 0, 0, 33}), "Prefix::len > 32 not allowed"},
              {bytes({10, 0, 0, 0, 0xff, 0xff, 0xff, 0xff}), "Prefix::len > 32 not allowed"},
              {bytes({10, 0, 0, 0, 0, 0, 0}), "attribute log truncated at offset 4"}};
   }
};

INSTANTIATE_TYPED_TEST_SUITE_P(IpAddr, ValueContract, ::testing::Types<IpAddr>);
INSTANTIATE_TYPED_TEST_SUITE_P(Prefix, ValueContract, ::testing::Types<Prefix>);

} // namespace Gant::Test

namespace {

using Pakto::IpAddr;
using Pakto::Prefix;

TEST(IpAddr, HeldInNetworkOrder) {
   IpAddr a = ip(0x0a000102);
   uint8_t wire[4];
   uint32_t v = a.value();
   std::memcpy(wire, &v, 4);
   EXPECT_EQ(wire[0], 10);
   EXPECT_EQ(wire[3], 2);
   EXPECT_EQ(Gant::toLog(a), Gant::Test::bytes({10, 0, 1, 2})) << "the log is in network order too";
   static_assert(IpAddr::fromHost(0x01020304).hostValue() == 0x01020304);
}

TEST(IpAddr, MulticastIsExactly224Slash4AndAPrefixWithin) {
   EXPECT_FALSE(ip(0xdfffffff).isMulticast());
   EXPECT_TRUE(ip(0xe0000000).isMulticast());
   EXPECT_TRUE(ip(0xefffffff).isMulticast());
   EXPECT_FALSE(ip(0xf0000000).isMulticast());
   EXPECT_TRUE(pfx(0xe0000000, 4).isMulticast());
   EXPECT_FALSE(pfx(0xe0000000, 3).isMulticast()) << "reaches outside 224/4";
   EXPECT_TRUE(pfx(0xef010101, 32).isMulticast());
   EXPECT_FALSE(pfx(0xf0000000, 4).isMulticast());
   EXPECT_FALSE(Prefix().isMulticast());
   EXPECT_TRUE(pfx(0x0a000001, 32).isHost());
   EXPECT_FALSE(pfx(0x0a000001, 31).isHost());
}

TEST(Prefix, HostBitsAreKeptAndABareAddressIsAHostPrefix) {
   Prefix p = pfx(0x30640100, 8);
   EXPECT_EQ(p.address(), ip(0x30640100));
   EXPECT_NE(p, pfx(0x30000000, 8));
   EXPECT_EQ(Gant::fromText<Prefix>("10.0.0.1"), pfx(0x0a000001, 32));
   EXPECT_EQ(Gant::toLog(pfx(0x0a010203, 24)), Gant::Test::bytes({10, 1, 2, 3, 0, 0, 0, 24}));
}

TEST(Prefix, HashIsTheMixOfAddressXorLength) {
   // IPv4 route keys hash each prefix this way; keep it stable.
   EXPECT_EQ(pfx(0xef010101, 32).hash(), Gant::hashMix(0xef010101u ^ 32u));
   EXPECT_EQ(Prefix().hash(), Gant::hashMix(0));
   std::ostringstream os;
   os << pfx(0x0a000000, 8) << ' ' << ip(0x7f000001);
   EXPECT_EQ(os.str(), "10.0.0.0/8 127.0.0.1");
}

} // namespace
