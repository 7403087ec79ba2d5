#include "platform/EthAddr.h"

#include "gant/testlib/ValueContract.h"

#include <gtest/gtest.h>

#include <sstream>

namespace Gant::Test {

using Pakto::EthAddr;

template <>
struct ValueSamples<EthAddr> : Samples<EthAddr> {
   static std::vector<EthAddr> distinct() {
      return {EthAddr(), EthAddr(0, 0, 0, 0, 0, 1), EthAddr(0, 0, 0, 0, 1, 0), EthAddr(0, 0, 0, 1, 0, 0),
              EthAddr(0, 1, 0, 0, 0, 0), EthAddr(0x01, 0x00, 0x5e, 0x01, 0x02, 0x03), EthAddr(0x02, 0, 0, 0, 0, 0),
              EthAddr(0xfe, 0xff, 0xff, 0xff, 0xff, 0xff), EthAddr(0xff, 0xff, 0xff, 0xff, 0xff, 0xff)};
   }
   static std::vector<std::pair<EthAddr, std::string>> texts() {
      return {{EthAddr(), "00:00:00:00:00:00"},
              {EthAddr(0x01, 0x00, 0x5e, 0x01, 0x02, 0x03), "01:00:5e:01:02:03"},
              {EthAddr(0xff, 0xff, 0xff, 0xff, 0xff, 0xff), "ff:ff:ff:ff:ff:ff"},
              {EthAddr(0xa0, 0xb1, 0xc2, 0xd3, 0xe4, 0xf5), "a0:b1:c2:d3:e4:f5"}};
   }
   static std::vector<std::string> badTexts() {
      return {"", "01:00:5e:01:02", "01:00:5e:01:02:03:04", "01:00:5e:01:02:3", "1:00:5e:01:02:03",
              "01-00-5e-01-02-03", "0100.5e01.0203", "01:00:5e:01:02:0g", "01:00:5e:01:02:03 ", "01:00:5e:01:02:03:",
              "01::5e:01:02:03:0", "+1:00:5e:01:02:03", "01:00:5e:01:02:03,", "'01:00:5e:01:02:03'"};
   }
   static std::vector<std::pair<std::string, std::string>> badLogs() {
      return {{bytes({1, 0, 0x5e, 1, 2}), "attribute log truncated at offset 0"}};
   }
};

INSTANTIATE_TYPED_TEST_SUITE_P(EthAddr, ValueContract, ::testing::Types<EthAddr>);

} // namespace Gant::Test

namespace {

using Pakto::EthAddr;

TEST(EthAddr, OctetsInWireOrder) {
   const uint8_t raw[6] = {0x01, 0x00, 0x5e, 0x7f, 0xfe, 0x0a};
   EthAddr a{std::span<const uint8_t, 6>(raw)};
   EXPECT_EQ(a, EthAddr(0x01, 0x00, 0x5e, 0x7f, 0xfe, 0x0a));
   EXPECT_EQ(a.octet(0), 0x01);
   EXPECT_EQ(a.octet(5), 0x0a);
   EXPECT_EQ(Gant::toLog(a), std::string(reinterpret_cast<const char*>(raw), 6));
}

TEST(EthAddr, MulticastIsTheGroupBitAndZeroIsAllZero) {
   EXPECT_TRUE(EthAddr(0x01, 0x00, 0x5e, 0, 0, 1).isMulticast());
   EXPECT_TRUE(EthAddr(0xff, 0xff, 0xff, 0xff, 0xff, 0xff).isMulticast());
   EXPECT_FALSE(EthAddr(0x02, 0, 0, 0, 0, 1).isMulticast());
   EXPECT_FALSE(EthAddr(0xfe, 0xff, 0xff, 0xff, 0xff, 0xff).isMulticast());
   EXPECT_TRUE(EthAddr().isZero());
   EXPECT_FALSE(EthAddr(0, 0, 0, 0, 0, 1).isZero());
   EXPECT_FALSE(EthAddr(1, 0, 0, 0, 0, 0).isZero());
}

TEST(EthAddr, UpperCaseReadsBackLowerCase) {
   EthAddr a = Gant::fromText<EthAddr>("0A:BC:De:f0:FF:00");
   EXPECT_EQ(a, EthAddr(0x0a, 0xbc, 0xde, 0xf0, 0xff, 0x00));
   std::ostringstream os;
   os << a;
   EXPECT_EQ(os.str(), "0a:bc:de:f0:ff:00");
}

TEST(EthAddrDeathTest, OctetBeyondSixAsserts) {
   EXPECT_DEATH(EthAddr().octet(6), "Assertion failed: i < octets");
}

} // namespace
