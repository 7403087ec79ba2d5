// Upcalls as the kernel lays them out, built byte by byte, through the
// manager's parser.
#include "notify/Notify.h"
#include "notify/Upcall.h"

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

void put16(Bytes& b, uint16_t v) { b.push_back(uint8_t(v)), b.push_back(uint8_t(v >> 8)); }
void put32(Bytes& b, uint32_t v) { put16(b, uint16_t(v)), put16(b, uint16_t(v >> 16)); }
// An address as the kernel writes it, four or sixteen bytes.
Bytes ipBytes(const char* text) {
   uint8_t a[16];
   const bool v6 = std::strchr(text, ':');
   inet_pton(v6 ? AF_INET6 : AF_INET, text, a);
   return Bytes(a, a + (v6 ? 16 : 4));
}
// The address `text` written over b from `at`.
void place(Bytes& b, std::size_t at, const char* text) {
   const Bytes a = ipBytes(text);
   std::copy(a.begin(), a.end(), b.begin() + std::ptrdiff_t(at));
}
// What the parser should make of an address; "" for none.
Pakto::IpGenAddr ip(const char* text) { return Gant::fromText<Pakto::IpGenAddr>(text); }

// One netlink attribute, padded to four bytes; len overrides nla_len.
void attr(Bytes& b, uint16_t type, const Bytes& payload, int len = -1) {
   put16(b, uint16_t(len >= 0 ? len : int(payload.size() + 4)));
   put16(b, type);
   b.insert(b.end(), payload.begin(), payload.end());
   while (b.size() % 4) b.push_back(0);
}
Bytes u32(uint32_t v) {
   Bytes b;
   put32(b, v);
   return b;
}
// A netlink message of type 96 around the attributes.
Bytes report(const Bytes& attrs, uint8_t family = 129, uint16_t type = 96) {
   Bytes b;
   put32(b, uint32_t(20 + attrs.size()));
   put16(b, type), put16(b, 0), put32(b, 0), put32(b, 0);
   b.insert(b.end(), {family, 0, 0, 0});
   b.insert(b.end(), attrs.begin(), attrs.end());
   return b;
}

struct Parser : ::testing::Test {
   Gant::Ptr<Routing::KernelMfib::Status> status = Routing::KernelMfib::statusFactory(L3::VrfName("default"));
   Gant::Ptr<MrtNotifyPamManager> v6 = mrtNotifyPamManagerFactory(Pakto::ipv6(), Pakto::NamespaceName());
   Gant::Ptr<MrtNotifyPamManager> v4 = mrtNotifyPamManagerFactory(Pakto::ipv4(), Pakto::NamespaceName());
   Parser() {
      status->intfIdCollIs(3, IntfId("Ethernet3"));
      status->intfIdCollIs(261, IntfId("Vlan261"));
   }
   Gant::Ptr<Pakto::MrtMessage> read(MrtNotifyPamManager& m, const Bytes& b, bool withStatus = true) {
      Gant::Ptr<Pakto::Pkt> p(new Pakto::Pkt(b.size() + 1));
      p->assign(b.data(), b.size());
      return m.readMrtMessage(p, withStatus ? status : nullptr);
   }
};

TEST_F(Parser, NetlinkReports) {
   const Bytes packet6 = [] {
      Bytes p(40, 0);
      p[0] = 0x60;
      place(p, 8, "2001:db8::9"), place(p, 24, "ff3e::42");
      return p;
   }();
   const Bytes ethernet7 = [] {
      Bytes b;
      const uint64_t v = IntfId("Ethernet7").value();
      put32(b, uint32_t(v >> 32)), put32(b, uint32_t(v));
      return b;
   }();
   struct Case {
      const char* what;
      Bytes attrs;
      bool ipv4;
      const char* type; // null: no message
      const char* intf;
      const char* source;
      const char* group;
   } cases[] = {
       {"no cache, interface from the mif map",
        [] { Bytes a; attr(a, 1, {1}), attr(a, 2, u32(3)), attr(a, 3, ipBytes("2001:db8::1")), attr(a, 4, ipBytes("ff3e::1")); return a; }(),
        false, "NoCache", "Ethernet3", "2001:db8::1", "ff3e::1"},
       {"wrong interface with its own interface attribute",
        [&] { Bytes a; attr(a, 1, {2}), attr(a, 2, u32(3)), attr(a, 6, ethernet7), attr(a, 3, ipBytes("2001:db8::1")), attr(a, 4, ipBytes("ff3e::1")); return a; }(),
        false, "WrongVif", "Ethernet7", "2001:db8::1", "ff3e::1"},
       {"IPv4 numbering is the IPv6 one plus 7",
        [&] { Bytes a; attr(a, 8, {2}), attr(a, 9, u32(261)), attr(a, 10, ipBytes("10.0.0.1")), attr(a, 11, ipBytes("239.1.1.1")); return a; }(),
        true, "WrongVif", "Vlan261", "10.0.0.1", "239.1.1.1"},
       {"a stock kernel's 4-byte table id as attribute 6 is too short for an id: skipped",
        [&] { Bytes a; attr(a, 1, {1}), attr(a, 2, u32(3)), attr(a, 3, ipBytes("10.0.0.1")), attr(a, 4, ipBytes("239.1.1.1")), attr(a, 6, u32(254)); return a; }(),
        true, "NoCache", "Ethernet3", "10.0.0.1", "239.1.1.1"},
       {"nla_len 3 ends the walk; the type came first",
        [] { Bytes a; attr(a, 1, {1}), attr(a, 2, u32(3)), attr(a, 3, ipBytes("2001:db8::1"), 3); return a; }(),
        false, "NoCache", "Ethernet3", "", ""},
       {"an attribute longer than what remains ends the walk",
        [] { Bytes a; attr(a, 2, u32(3)), attr(a, 1, {1}), attr(a, 4, ipBytes("ff3e::1"), 200); return a; }(),
        false, "NoCache", "Ethernet3", "", ""},
       {"the whole packet's flow is its own header's, not the attributes'; it needs no mapped interface",
        [&] { Bytes a; attr(a, 1, {3}), attr(a, 2, u32(99)), attr(a, 3, ipBytes("2001:db8::1")), attr(a, 4, ipBytes("ff3e::1")), attr(a, 5, packet6); return a; }(),
        false, "WholePkt", "", "2001:db8::9", "ff3e::42"},
       {"no type attribute: nothing",
        [] { Bytes a; attr(a, 2, u32(3)), attr(a, 99, {1, 2}); return a; }(), false, nullptr, "", "", ""},
       {"an unknown upcall type: nothing",
        [] { Bytes a; attr(a, 1, {'x'}), attr(a, 2, u32(3)); return a; }(), false, nullptr, "", "", ""},
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(c.what);
      MrtNotifyPamManager& m = c.ipv4 ? *v4 : *v6;
      m.useNetlinkIs(true);
      const auto msg = read(m, report(c.attrs, c.ipv4 ? 128 : 129));
      if (!c.type) {
         EXPECT_FALSE(msg);
         continue;
      }
      ASSERT_TRUE(msg);
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
}

TEST_F(Parser, TwoReportsInOnePacketYieldTheFirst) {
   Bytes a, b;
   attr(a, 1, {1}), attr(a, 2, u32(3)), attr(a, 3, ipBytes("2001:db8::1")), attr(a, 4, ipBytes("ff3e::1"));
   attr(b, 1, {2}), attr(b, 2, u32(3));
   Bytes both = report(a);
   const Bytes second = report(b);
   both.insert(both.end(), second.begin(), second.end());
   Flashlog::Capture capture("Mroute::MrtNotify=5");
   const auto msg = read(*v6, both);
   ASSERT_TRUE(msg);
   EXPECT_EQ(msg->type(), Pakto::MrtMessageType::NoCache);
   EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                  "WARN: More than one message in one pkt. Returning first one, discarding others.",
                                  "NoCacheMessage on intf:Ethernet3 for src: 2001:db8::1 and grp: ff3e::1"}));
   EXPECT_EQ(v6->wrongVifCounter(), 0u);
}

TEST_F(Parser, RawIpv4Upcalls) {
   auto igmpmsg = [](uint8_t type, uint16_t vif, const char* source = "10.1.1.1", const char* group = "239.2.2.2") {
      Bytes b(20, 0);
      b[0] = 0x45;
      b[8] = type;
      b[10] = uint8_t(vif), b[11] = uint8_t(vif >> 8);
      place(b, 12, source), place(b, 16, group);
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
   inner[8] = 64;
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
   Bytes a;
   attr(a, 1, {1}), attr(a, 2, u32(3));
   const Bytes good = report(a);
   Bytes longer = good;
   longer[0] = uint8_t(good.size() + 1);
   Bytes shortLen = good;
   shortLen[0] = 15;
   // Whole reports the manager cannot use: another family's, one for a vif
   // no interface is mapped to, a whole-packet report without its packet.
   Bytes unmapped, noPacket;
   attr(unmapped, 1, {2}), attr(unmapped, 2, u32(7));
   attr(noPacket, 1, {3}), attr(noPacket, 2, u32(3));
   const Bytes cases[] = {Bytes(), Bytes(15, 0), longer, shortLen, report({}, 129, 3), report(a, 129, 97),
                          report(a, 2), report(unmapped), report(noPacket)};
   for (const Bytes& b : cases) EXPECT_FALSE(read(*v6, b));
   EXPECT_FALSE(read(*v6, good, false)) << "no status maps no vif";
   EXPECT_EQ(v6->noCacheCounter() + v6->wrongVifCounter() + v6->wholePktCounter(), 0u);
   // Every prefix of a good report: nothing read past its end.
   for (std::size_t n = 0; n < good.size(); ++n) EXPECT_FALSE(read(*v6, Bytes(good.begin(), good.begin() + n)));
}

} // namespace
