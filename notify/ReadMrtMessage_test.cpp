// Upcalls as the kernel lays them out, built byte by byte, through the
// manager's parser.
#include "notify/Notify.h"

#include "flashlog/Capture.h"
#include "gant/Codec.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>
#include <vector>

namespace {

using namespace Routing::Multicast::Notify;
using Bytes = std::vector<uint8_t>;
using Pakto::IntfId;

// v, little-endian, in n bytes, after b.
Bytes& put(Bytes& b, uint64_t v, int n) {
   while (n--) b.push_back(uint8_t(v)), v >>= 8;
   return b;
}
Bytes u32(uint32_t v) {
   Bytes b;
   return put(b, v, 4);
}
// An address as the kernel writes it, four or sixteen bytes.
Bytes ipBytes(const char* text) {
   uint8_t a[16];
   const bool v6 = std::strchr(text, ':');
   inet_pton(v6 ? AF_INET6 : AF_INET, text, a);
   return Bytes(a, a + (v6 ? 16 : 4));
}
Pakto::IpGenAddr ip(const char* text) { return Gant::fromText<Pakto::IpGenAddr>(text); }

// One netlink attribute; len, when given, overrides nla_len.
struct Attr {
   uint16_t type;
   Bytes payload;
   int len = -1;
};
// A netlink message of `type` around the attributes, each padded to four bytes.
Bytes report(const std::vector<Attr>& attrs, uint8_t family = 129, uint16_t type = 96) {
   Bytes b(20, 0);
   b[4] = uint8_t(type), b[16] = family;
   for (const Attr& a : attrs) {
      put(b, a.len >= 0 ? uint32_t(a.len) : a.payload.size() + 4, 2), put(b, a.type, 2);
      b.insert(b.end(), a.payload.begin(), a.payload.end());
      b.resize((b.size() + 3) & ~std::size_t(3));
   }
   for (int i = 0; i < 4; ++i) b[i] = uint8_t(b.size() >> 8 * i);
   return b;
}

struct Parser : ::testing::Test {
   Gant::Ptr<Routing::KernelMfib::Status> status = Routing::KernelMfib::statusFactory(L3::VrfName("default"));
   Gant::Ptr<MrtNotifyPamManager> v6 = mrtNotifyPamManagerFactory(Pakto::ipv6(), Pakto::NamespaceName());
   Gant::Ptr<MrtNotifyPamManager> v4 = mrtNotifyPamManagerFactory(Pakto::ipv4(), Pakto::NamespaceName());
   const Bytes s6 = ipBytes("2001:db8::1"), g6 = ipBytes("ff3e::1");
   Parser() {
      status->intfIdCollIs(3, IntfId("Ethernet3"));
      status->intfIdCollIs(261, IntfId("Vlan261"));
   }
   Gant::Ptr<Pakto::MrtMessage> read(MrtNotifyPamManager& m, const Bytes& b) {
      Gant::Ptr<Pakto::Pkt> p(new Pakto::Pkt(b.size() + 1));
      p->assign(b.data(), b.size());
      return m.readMrtMessage(p, status);
   }
};

TEST_F(Parser, NetlinkReports) {
   Bytes packet6(40, 0);
   packet6[0] = 0x60;
   std::memcpy(&packet6[8], ipBytes("2001:db8::9").data(), 16);
   std::memcpy(&packet6[24], ipBytes("ff3e::42").data(), 16);
   const uint64_t e7 = IntfId("Ethernet7").value();
   Bytes ethernet7 = u32(uint32_t(e7 >> 32));
   put(ethernet7, e7, 4);
   const Bytes s4 = ipBytes("10.0.0.1"), g4 = ipBytes("239.1.1.1");
   const struct {
      const char* what;
      std::vector<Attr> attrs;
      bool ipv4;
      const char* type; // null: no message
      const char *intf, *source, *group;
   } cases[] = {
       {"no cache, interface from the mif map", {{1, {1}}, {2, u32(3)}, {3, s6}, {4, g6}},
        false, "NoCache", "Ethernet3", "2001:db8::1", "ff3e::1"},
       {"wrong interface with its own interface attribute",
        {{1, {2}}, {2, u32(3)}, {6, ethernet7}, {3, s6}, {4, g6}},
        false, "WrongVif", "Ethernet7", "2001:db8::1", "ff3e::1"},
       {"IPv4 numbering is the IPv6 one plus 7", {{8, {2}}, {9, u32(261)}, {10, s4}, {11, g4}},
        true, "WrongVif", "Vlan261", "10.0.0.1", "239.1.1.1"},
       {"a stock kernel's 4-byte table id as attribute 6 is too short for an id: skipped",
        {{1, {1}}, {2, u32(3)}, {3, s4}, {4, g4}, {6, u32(254)}},
        true, "NoCache", "Ethernet3", "10.0.0.1", "239.1.1.1"},
       {"nla_len 3 ends the walk; the type came first", {{1, {1}}, {2, u32(3)}, {3, s6, 3}},
        false, "NoCache", "Ethernet3", "", ""},
       {"an attribute longer than what remains ends the walk", {{2, u32(3)}, {1, {1}}, {4, g6, 200}},
        false, "NoCache", "Ethernet3", "", ""},
       {"the whole packet's flow is its own header's, not the attributes'; it needs no mapped interface",
        {{1, {3}}, {2, u32(99)}, {3, s6}, {4, g6}, {5, packet6}},
        false, "WholePkt", "", "2001:db8::9", "ff3e::42"},
       {"no type attribute: nothing", {{2, u32(3)}, {99, {1, 2}}}, false, nullptr, "", "", ""},
       {"an unknown upcall type: nothing", {{1, {'x'}}, {2, u32(3)}}, false, nullptr, "", "", ""},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      MrtNotifyPamManager& m = c.ipv4 ? *v4 : *v6;
      m.useNetlinkIs(true);
      const auto msg = read(m, report(c.attrs, c.ipv4 ? 128 : 129));
      ASSERT_EQ(bool(msg), bool(c.type));
      if (!msg) continue;
      EXPECT_STREQ(Pakto::stringValue(msg->type()), c.type);
      EXPECT_EQ(msg->intfId(), IntfId(c.intf));
      EXPECT_EQ(msg->source(), ip(c.source));
      EXPECT_EQ(msg->group(), ip(c.group));
      if (msg->type() == Pakto::MrtMessageType::WholePkt) {
         EXPECT_EQ(Bytes(msg->pkt()->data(), msg->pkt()->data() + msg->pkt()->size()), packet6);
      }
   }
   // Only upcalls that made a message count.
   EXPECT_EQ(v6->noCacheCounter() + v4->noCacheCounter(), 4u);
   EXPECT_EQ(v6->wrongVifCounter() + v4->wrongVifCounter(), 2u);
   EXPECT_EQ(v6->wholePktCounter(), 1u);

   // Two reports in one packet: the first, and a warning; the second is not read.
   Bytes both = report({{1, {1}}, {2, u32(3)}, {3, s6}, {4, g6}});
   const Bytes second = report({{1, {2}}, {2, u32(3)}});
   both.insert(both.end(), second.begin(), second.end());
   Flashlog::Capture capture("Mroute::MrtNotify=5");
   const auto msg = read(*v6, both);
   ASSERT_TRUE(msg);
   EXPECT_EQ(msg->type(), Pakto::MrtMessageType::NoCache);
   EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                  "WARN: More than one message in one pkt. Returning first one, discarding others.",
                                  "NoCacheMessage on intf:Ethernet3 for src: 2001:db8::1 and grp: ff3e::1"}));
   EXPECT_EQ(v6->wrongVifCounter(), 1u);
}

TEST_F(Parser, RawIpv4Upcalls) {
   auto igmpmsg = [](uint8_t type, uint16_t vif, const char* source = "10.1.1.1", const char* group = "239.2.2.2") {
      Bytes b = {0x45, 0, 0, 0, 0, 0, 0, 0, type, 0};
      put(b, vif, 2);
      for (const char* a : {source, group})
         for (uint8_t x : ipBytes(a)) b.push_back(x);
      return b;
   };
   // The high byte counts: 0x0105 is 261, not 5.
   auto msg = read(*v4, igmpmsg(1, 0x0105));
   ASSERT_TRUE(msg);
   EXPECT_EQ(msg->intfId(), IntfId("Vlan261"));
   EXPECT_EQ(msg->source(), ip("10.1.1.1"));
   EXPECT_EQ(msg->group(), ip("239.2.2.2"));
   // A whole packet: the record, then the packet, whose header names the flow.
   Bytes whole = igmpmsg(3, 3), inner = igmpmsg(0, 0, "10.9.9.9", "239.9.9.9");
   inner.insert(inner.end(), {0xde, 0xad});
   whole.insert(whole.end(), inner.begin(), inner.end());
   msg = read(*v4, whole);
   ASSERT_TRUE(msg);
   EXPECT_EQ(msg->type(), Pakto::MrtMessageType::WholePkt);
   EXPECT_EQ(msg->intfId(), IntfId("Ethernet3"));
   EXPECT_EQ(msg->source(), ip("10.9.9.9"));
   EXPECT_EQ(msg->group(), ip("239.9.9.9"));
   EXPECT_EQ(Bytes(msg->pkt()->data(), msg->pkt()->data() + msg->pkt()->size()), inner);
   // Not an upcall: nothing, and nothing counted.
   Flashlog::Capture capture("Mroute::MrtNotify=5");
   EXPECT_FALSE(read(*v4, igmpmsg(7, 3)));
   EXPECT_FALSE(read(*v4, Bytes(12, 1)));
   EXPECT_FALSE(read(*v4, igmpmsg(3, 3))) << "a whole-packet record without its packet";
   EXPECT_EQ(capture.lines(), std::vector<std::string>(3, "MrtNotify Rcv: Invalid MRT Alert"));
   EXPECT_EQ(v4->noCacheCounter(), 1u);
   EXPECT_EQ(v4->wholePktCounter(), 1u);
}

TEST_F(Parser, DamagedNetlinkBuffersEndQuietly) {
   const Bytes good = report({{1, {1}}, {2, u32(3)}});
   Bytes longer = good, shortLen = good;
   longer[0] = uint8_t(good.size() + 1);
   shortLen[0] = 15;
   for (const Bytes& b : {Bytes(), Bytes(15, 0), longer, shortLen, report({}, 129, 3), report({{1, {1}}}, 129, 97)})
      EXPECT_FALSE(read(*v6, b));
   // Every prefix of a good report: nothing read past its end.
   for (std::size_t n = 0; n < good.size(); ++n) EXPECT_FALSE(read(*v6, Bytes(good.begin(), good.begin() + n)));
   EXPECT_EQ(v6->noCacheCounter(), 0u);
}

using ParserDeathTest = Parser;

TEST_F(ParserDeathTest, StatesTheKernelSocketsNeverDeliver) {
   EXPECT_DEATH(read(*v6, report({{1, {1}}, {2, u32(3)}}, 2)),
                "rtgenmsg->rtgen_family == 129 \\|\\| rtgenmsg->rtgen_family == 128");
   EXPECT_DEATH(read(*v6, report({{1, {2}}, {2, u32(7)}})), "mrtMsg->intfId\\(\\) != Pakto::IntfId\\(\\)");
}

} // namespace
