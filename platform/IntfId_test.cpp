#include "platform/IntfId.h"

#include "gant/testlib/ValueContract.h"

#include "gant/testlib/Thrown.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

Pakto::IntfId intf(const char* name) { return Pakto::IntfId(name); }

} // namespace

namespace Gant::Test {

using Pakto::IntfId;

template <>
struct ValueSamples<IntfId> : Samples<IntfId> {
   // Ascending: kind, then the numbers in their natural order.
   static std::vector<IntfId> distinct() {
      return {IntfId(), intf("Ethernet0"), intf("Ethernet2"), intf("Ethernet3"), intf("Ethernet3.0"),
              intf("Ethernet3.100"), intf("Ethernet3/0"), intf("Ethernet3/1"), intf("Ethernet3/1.7"),
              intf("Ethernet3/1/0"), intf("Ethernet3/1/62"), intf("Ethernet3/2"), intf("Ethernet3/1022"),
              intf("Ethernet10"), intf("Ethernet16777215/1022/62.65534"), intf("Port-Channel1"),
              intf("Port-Channel10"), intf("Port-Channel10.5"), intf("Vlan1"), intf("Vlan4094"), intf("Loopback0"),
              intf("Management1"), intf("Management1/1"), intf("Tunnel5"), intf("Vxlan1"), intf("Register0"),
              intf("Cpu")};
   }
   static std::vector<std::pair<IntfId, std::string>> texts() {
      return {{IntfId(), ""}, {intf("Ethernet1/2/3"), "Ethernet1/2/3"},
              {IntfId::fromValue(0x0300006400000000), "Vlan100"},
              {IntfId::fromValue(0x0100000300800065), "Ethernet3/1.100"},
              {IntfId::fromValue(0x0900000000000000), "Cpu"}};
   }
   static std::vector<std::string> badTexts() {
      return {"Ethernet",         "Ethernet03",       "Ethernet3/",        "Ethernet/3",     "Ethernet3//1",
              "Ethernet1/2/3/4",  "Ethernet3.",       "Ethernet3.1.2",     "Ethernet3/1023", "Ethernet1/2/63",
              "Ethernet3.65535",  "Ethernet16777216", "Ethernet-1",        "Ethernet+1",     "ethernet3",
              "Ethernet 3",       " Ethernet3",       "Ethernet3 ",        "Vlan100.1",      "Loopback0/1",
              "Management1/1/1",  "Cpu0",             "Cpu.1",             "Eth3",           "Port-Channel",
              "Port-Channel1/1",  "Foo0",             "'Ethernet3'",       "Ethernet3,",
              "Ethernet99999999999"};
   }
   static std::vector<std::pair<std::string, std::string>> badLogs() {
      std::string bad = "IntfId::value is not a valid interface encoding";
      return {{bytes({0, 0, 0, 0, 0, 0, 0, 1}), bad},             // no kind
              {bytes({0x0a, 0, 0, 1, 0, 0, 0, 0}), bad},          // unknown kind
              {bytes({0x09, 0, 0, 1, 0, 0, 0, 0}), bad},          // Cpu with a number
              {bytes({0x01, 0, 0, 1, 0, 0x01, 0, 0}), bad},       // third number without a second
              {bytes({0x03, 0, 0, 1, 0, 0, 0, 1}), bad},          // Vlan subinterface
              {bytes({0x03, 0, 0, 1, 0, 0x40, 0, 0}), bad},       // Vlan with a second number
              {bytes({0x05, 0, 0, 1, 0, 0x40 | 0x01, 0, 0}), bad}, // Management with three
              {bytes({0x01, 0, 0, 1, 0}), "attribute log truncated at offset 0"}};
   }
};

INSTANTIATE_TYPED_TEST_SUITE_P(IntfId, ValueContract, ::testing::Types<IntfId>);

} // namespace Gant::Test

namespace {

using Pakto::IntfId;

TEST(IntfId, EncodingIsTheDocumentedLayout) {
   EXPECT_TRUE(!IntfId());
   EXPECT_FALSE(!intf("Cpu")) << "the one kind with no number is not empty";
   EXPECT_EQ(IntfId::fromValue(0), IntfId());
   EXPECT_EQ(intf("Ethernet3").value(), 0x0100000300000000u);
   EXPECT_EQ(intf("Ethernet1/2/3").value(), 0x01000001'00c40000u); // (2+1)<<22 | (3+1)<<16
   EXPECT_EQ(intf("Port-Channel10.5").value(), 0x0200000a'00000006u);
   EXPECT_EQ(intf("Register0").value(), 0x08000000'00000000u);
   EXPECT_EQ(intf("Vxlan1").value(), 0x07000001'00000000u);
   EXPECT_EQ(Gant::toLog(intf("Tunnel5")), Gant::Test::bytes({6, 0, 0, 5, 0, 0, 0, 0}));
}

TEST(IntfId, ValueRoundTripsAndHashesAsTwoWordsHighFirst) {
   for (const char* name : {"Ethernet3/1", "Management1/1", "Loopback8191", "Vlan4094"}) {
      IntfId id = intf(name);
      EXPECT_EQ(IntfId::fromValue(id.value()).name(), name);
      uint32_t high = static_cast<uint32_t>(id.value() >> 32);
      uint32_t low = static_cast<uint32_t>(id.value());
      EXPECT_EQ(id.hash(), Gant::hashMix(low ^ Gant::hashMix(high)));
   }
   std::ostringstream os;
   os << intf("Ethernet3/1") << '|' << IntfId() << '|';
   EXPECT_EQ(os.str(), "Ethernet3/1||");
}

// A bad value's refusal is checked with the bad logs, which decode through fromValue.
TEST(IntfId, ARefusedNameIsQuoted) {
   EXPECT_EQ(Gant::Test::thrown<Gant::ParseError>([&] { intf("Ethernet3/1/2/3"); }),
             "IntfId: cannot encode interface name 'Ethernet3/1/2/3'");
}

} // namespace
