// The upcall manager, its review and the ICMPv6 relay on real sockets:
// upcalls that a stock kernel raises for datagrams reaching a router
// namespace, through the socket the manager chose and the filter in the
// kernel, or through the relay, to the manager's messages.
#include "notify/MrtIcmpV6RelaySm.h"
#include "notify/MrtNotifySm.h"
#include "notify/testlib/NotifyCalls.h"
#include "notify/testlib/RouterAndHost.h"

#include "gant/Codec.h"
#include "pakto/Socket.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/netlink.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace {

using namespace Routing::Multicast::Notify;
using namespace Routing::Multicast::Notify::Test;
using Pakto::IntfId;

constexpr uint32_t noCache = uint32_t(MrtNotifySocketOptions::igmpNoCache);
constexpr uint32_t wrongVif = uint32_t(MrtNotifySocketOptions::igmpWrongVif);

Pakto::IpGenAddr ip(const char* text) { return Gant::fromText<Pakto::IpGenAddr>(text); }

// The kernel's IPv6 upcall record (mbz, type, 16-bit mif, pad, source,
// group).
std::vector<uint8_t> mrt6msg(uint8_t type, uint8_t mif) {
   std::vector<uint8_t> b(40, 0xAB);
   b[0] = 0, b[1] = type, b[2] = mif, b[3] = 0;
   return b;
}

struct NoNetlink {
   NoNetlink() { ::setenv("MCAST_NO_NETLINK", "1", 1); }
   ~NoNetlink() { ::unsetenv("MCAST_NO_NETLINK"); }
};

TEST(MrtNotifyPamManager, KernelUpcallsOfTheKindsAskedForBecomeMessagesDirectlyOrRelayed) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs root for network namespaces";
   PamLoop pl;
   RouterAndHost net;
   NotifyCalls calls;
   // Kernel interface i (the router's side of pair i) is Ethernet<i+1>.
   auto status = Routing::KernelMfib::statusFactory(L3::VrfName("default"));
   status->intfIdCollIs(0, IntfId("Ethernet1"));
   status->intfIdCollIs(1, IntfId("Ethernet2"));
   const auto noCacheFrom = [&](const MrtNotifyPamManager& m, int family, int pair, const char* group) {
      ASSERT_TRUE(pl.loop.runUntil([&] { return m.noCacheCounter() == 1; }, 5));
      const Pakto::MrtMessage& msg = *m.noCacheMessage();
      EXPECT_EQ(msg.source(), ip(RouterAndHost::hostAddress(family, pair).c_str()));
      EXPECT_EQ(msg.group(), ip(group));
      EXPECT_EQ(msg.vif(), pair);
      EXPECT_EQ(msg.intfId(), IntfId(pair ? "Ethernet2" : "Ethernet1"));
   };

   // IPv6 through the netlink pam the manager always makes. Beside it, a
   // socket without a program sees every report the kernel sends (bound, it
   // has a port: the kernel's reports skip port 0, its own).
   const Sys::Fd mroute6 = net.mroute6(true);
   const Sys::Result opened = Pakto::openSocket(net.router(), AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE);
   ASSERT_TRUE(opened.ok());
   const Sys::Fd all(int(opened.value));
   const sockaddr_nl local{AF_NETLINK, 0, 0, 0};
   const int group = 31;
   ASSERT_EQ(::bind(all.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local), 0);
   ASSERT_EQ(::setsockopt(all.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group), 0);
   int sent = 0;
   Loop::Watch watch = pl.loop.watchReadable(all.get(), [&] {
      uint8_t buf[4096];
      sent += ::recv(all.get(), buf, sizeof buf, 0) > 0;
   });
   auto v6 = mrtNotifyPamManagerFactory(Pakto::ipv6(), net.router());
   v6->pam()->optionsIs(noCache);
   auto sm6 = mrtNotifySmFactory(v6, status);
   ASSERT_TRUE(v6->pam()->enabled());
   // The wrong-interface report stops in the kernel; the no-cache report
   // raised after it comes through, and alone.
   net.sendUdp(AF_INET6, 1, "ff0e::1:4", mroute6.get());
   net.sendUdp(AF_INET6, 1, "ff0e::1:5");
   noCacheFrom(*v6, AF_INET6, 1, "ff0e::1:5");
   ASSERT_TRUE(pl.loop.runUntil([&] { return sent == 2; }, 10));
   EXPECT_EQ(v6->pam()->rxPktCount(), 1u);
   // Asked for while enabled, the next one comes through.
   v6->pam()->optionsIs(noCache | wrongVif);
   net.sendUdp(AF_INET6, 0, "ff0e::1:4", mroute6.get());
   ASSERT_TRUE(pl.loop.runUntil([&] { return v6->wrongVifCounter() == 1; }, 10));
   EXPECT_EQ(v6->wrongVifMessage()->intfId(), IntfId("Ethernet1"));
   EXPECT_EQ(v6->pam()->rxPktCount(), 2u);
   // A whole packet: its own header names the flow, the packet comes whole.
   const auto wholeFrom = [&](const MrtNotifyPamManager& m, const char* group) {
      ASSERT_TRUE(pl.loop.runUntil([&] { return m.wholePktCounter() == 1; }, 5));
      const Pakto::MrtMessage& msg = *m.wholePktMessage();
      EXPECT_EQ(msg.source(), ip(RouterAndHost::hostAddress(AF_INET6, 1).c_str()));
      EXPECT_EQ(msg.group(), ip(group));
      ASSERT_TRUE(msg.pkt());
      EXPECT_EQ(msg.pkt()->size(), 40u + 8 + sizeof "upcall") << "IPv6 and UDP headers, then the payload";
      EXPECT_EQ(msg.pkt()->data()[0] >> 4, 6);
   };
   v6->pam()->optionsIs(noCache | wrongVif | uint32_t(MrtNotifySocketOptions::igmpWholePkt));
   net.registerWhole6(mroute6.get(), 1, "ff0e::1:8");
   net.sendUdp(AF_INET6, 1, "ff0e::1:8");
   wholeFrom(*v6, "ff0e::1:8");

   // IPv4 through the raw pam, reading the stock IGMP mroute socket in place
   // of the socket that would carry the private notify options.
   calls.rawSocket = net.mroute4();
   auto v4 = mrtNotifyPamManagerFactory(Pakto::ipv4(), net.router());
   v4->pam()->optionsIs(noCache);
   auto sm4 = mrtNotifySmFactory(v4, status);
   EXPECT_EQ(calls.notifyOptions, (std::vector<std::pair<int, int>>{{211, 1}, {213, 1}}));
   net.sendUdp(AF_INET, 0, "239.1.2.3");
   noCacheFrom(*v4, AF_INET, 0, "239.1.2.3");
   EXPECT_EQ(v4->wrongVifCounter() + v4->wholePktCounter(), 0u);

   // Initialized once: a second review of the flag enables nothing.
   const Gant::Ptr<MrtNotifySocketPam> raw = v4->pam();
   raw->enabledIs(false);
   sm4->handleInitialized();
   sm4->initializedIs(true);
   EXPECT_FALSE(raw->enabled());
   raw->enabledIs(true);

   // Switching to netlink keeps the kinds and the state; the same value
   // again changes nothing.
   v4->pam()->optionsIs(noCache | wrongVif);
   v4->useNetlinkIs(false);
   EXPECT_EQ(v4->pam(), raw);
   const int rawSd = raw->sd();
   v4->useNetlinkIs(true);
   auto* netlink = dynamic_cast<MrtNotifyNetlinkSocketPam*>(v4->pam().ptr());
   ASSERT_TRUE(netlink);
   EXPECT_TRUE(netlink->enabled());
   EXPECT_EQ(netlink->options(), noCache | wrongVif);
   EXPECT_NE(std::find(calls.closed.begin(), calls.closed.end(), rawSd), calls.closed.end());
   EXPECT_FALSE(raw->enabled());
   v4->useNetlinkIs(true);
   EXPECT_EQ(v4->pam().ptr(), netlink);
   // The review follows the new socket: a report sent to its group arrives.
   auto tx = mrtNotifyNetlinkSocketPamFactory(Gant::Name("tx"), net.router());
   tx->enableTxIs(true);
   NoCacheMessage report;
   report.sourceIs(ip("10.0.0.2"));
   report.groupIs(ip("239.1.2.4"));
   tx->txMrtNotification(report, 1);
   ASSERT_TRUE(pl.loop.runUntil([&] { return v4->noCacheCounter() == 2; }, 10));
   EXPECT_EQ(v4->noCacheMessage()->group(), ip("239.1.2.4"));
   EXPECT_EQ(v4->noCacheMessage()->intfId(), IntfId("Ethernet2"));

   // IPv6 upcalls come through netlink, whatever useNetlink says.
   const Gant::Ptr<MrtNotifySocketPam> first = v6->pam();
   EXPECT_TRUE(dynamic_cast<MrtNotifyNetlinkSocketPam*>(first.ptr()));
   v6->useNetlinkIs(true);
   v6->useNetlinkIs(false);
   EXPECT_EQ(v6->pam(), first);
   EXPECT_EQ(first->af(), Pakto::ipv6());

   // MCAST_NO_NETLINK: the relay reads the kernel's own upcalls from the
   // mroute socket its owner hands in (left unread so far: emptied first)
   // and sends them as reports on the user-socket group to a consumer.
   uint8_t unread[2048];
   while (::recv(mroute6.get(), unread, sizeof unread, MSG_DONTWAIT) > 0) {
   }
   const NoNetlink noNetlink;
   auto consumer = mrtNotifyPamManagerFactory(Pakto::ipv6(), net.router());
   consumer->pam()->optionsIs(0x7);
   auto consuming = mrtNotifySmFactory(consumer, status);
   auto relay = mrtIcmpV6RelaySmFactory(net.router(), status);
   relay->mrtSkSdIs(mroute6.get());
   ASSERT_TRUE(relay->icmpV6Pam() && relay->icmpV6Pam()->enabled());
   net.sendUdp(AF_INET6, 1, "ff0e::1:6");
   noCacheFrom(*consumer, AF_INET6, 1, "ff0e::1:6");
   net.sendUdp(AF_INET6, 1, "ff0e::1:7", mroute6.get());
   ASSERT_TRUE(pl.loop.runUntil([&] { return consumer->wrongVifCounter() == 1; }, 5));
   EXPECT_EQ(consumer->wrongVifMessage()->intfId(), IntfId("Ethernet2"));
   net.sendUdp(AF_INET6, 1, "ff0e::1:8");
   wholeFrom(*consumer, "ff0e::1:8");
   EXPECT_EQ(relay->relayed(), 3u);

   // What the kernel never writes, through a socket of the test's own: a
   // type that is none, then a no-cache record to show it was passed over.
   int a[2];
   ASSERT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM, 0, a), 0);
   const Gant::Ptr<MrtNotifySocketPam> kernelPam = relay->icmpV6Pam();
   relay->mrtSkSdIs(a[0]);
   EXPECT_FALSE(kernelPam->enabled());
   EXPECT_EQ(relay->icmpV6Pam()->sd(), a[0]) << "both pams made again, on the new socket";
   for (const std::vector<uint8_t>& bytes : {mrt6msg(9, 0), mrt6msg(1, 1)})
      ASSERT_EQ(::send(a[1], bytes.data(), bytes.size(), 0), ssize_t(bytes.size()));
   ASSERT_TRUE(pl.loop.runUntil([&] { return consumer->noCacheCounter() == 2; }, 5));
   EXPECT_EQ(relay->icmpV6Pam()->rxMrt6msgCount(), 2u);
   EXPECT_EQ(relay->relayed(), 4u);

   // Off: nothing is left, and the handed-in sockets stay their owners'.
   relay->mrtSkSdIs(0);
   EXPECT_FALSE(relay->icmpV6Pam());
   EXPECT_FALSE(relay->netlinkPam());
   EXPECT_EQ(::send(a[1], "x", 1, 0), 1);
   EXPECT_NE(::fcntl(mroute6.get(), F_GETFD), -1) << "the mroute socket is still open";
   ::close(a[0]), ::close(a[1]);
}

} // namespace
