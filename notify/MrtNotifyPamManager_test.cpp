// The upcall manager and its review on real sockets: upcalls that a stock
// kernel raises for datagrams reaching a router namespace, through the
// socket the manager chose, to the manager's messages.
#include "notify/MrtNotifySm.h"
#include "notify/testlib/NotifyCalls.h"
#include "notify/testlib/RouterAndHost.h"

#include "gant/Codec.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>

namespace {

using namespace Routing::Multicast::Notify;
using Pakto::IntfId;
using namespace Routing::Multicast::Notify::Test;

constexpr uint32_t noCache = uint32_t(MrtNotifySocketOptions::igmpNoCache);
constexpr uint32_t wrongVif = uint32_t(MrtNotifySocketOptions::igmpWrongVif);

Pakto::IpGenAddr ip(const char* text) { return Gant::fromText<Pakto::IpGenAddr>(text); }

// Kernel interface i (the router's side of pair i) is Ethernet<i+1>.
Gant::Ptr<const Routing::KernelMfib::Status> interfaces() {
   auto status = Routing::KernelMfib::statusFactory(L3::VrfName("default"));
   status->intfIdCollIs(0, IntfId("Ethernet1"));
   status->intfIdCollIs(1, IntfId("Ethernet2"));
   return status;
}

TEST(MrtNotifyPamManager, KernelUpcallsBecomeTheNoCacheMessage) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs root for network namespaces";
   const struct {
      int family;
      int pair;
      const char* group;
   } cases[] = {
       // IPv6 through the netlink pam the manager always makes.
       {AF_INET6, 1, "ff0e::1:2"},
       // IPv4 through the raw pam, reading the stock IGMP mroute socket in
       // place of the socket that would carry the private notify options.
       {AF_INET, 0, "239.1.2.3"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.group);
      PamLoop pl;
      RouterAndHost net;
      NotifyCalls calls;
      Sys::Fd mroute;
      if (c.family == AF_INET6)
         mroute = net.mroute6();
      else
         calls.rawSocket = net.mroute4();
      auto manager =
          mrtNotifyPamManagerFactory(c.family == AF_INET6 ? Pakto::ipv6() : Pakto::ipv4(), net.router());
      manager->pam()->optionsIs(noCache);
      auto sm = mrtNotifySmFactory(manager, interfaces());
      ASSERT_TRUE(manager->pam()->enabled());
      if (c.family == AF_INET) {
         EXPECT_EQ(calls.notifyOptions, (std::vector<std::pair<int, int>>{{211, 1}, {213, 1}}));
      }

      net.sendUdp(c.family, c.pair, c.group);
      ASSERT_TRUE(pl.loop.runUntil([&] { return manager->noCacheCounter() == 1; }, 10));
      const Pakto::MrtMessage& m = *manager->noCacheMessage();
      EXPECT_EQ(m.source(), ip(RouterAndHost::hostAddress(c.family, c.pair).c_str()));
      EXPECT_EQ(m.group(), ip(c.group));
      EXPECT_EQ(m.vif(), c.pair);
      EXPECT_EQ(m.intfId(), IntfId(c.pair ? "Ethernet2" : "Ethernet1"));
      EXPECT_EQ(manager->wrongVifCounter() + manager->wholePktCounter(), 0u);
   }
}

TEST(MrtNotifyPamManager, SwitchingSocketsKeepsTheKindsAndTheState) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs root for raw and forced-buffer sockets";
   PamLoop pl;
   Netns ns("alone");
   NotifyCalls calls;
   auto manager = mrtNotifyPamManagerFactory(Pakto::ipv4(), ns.name());
   manager->pam()->optionsIs(noCache | wrongVif);
   auto sm = mrtNotifySmFactory(manager, interfaces());
   const Gant::Ptr<MrtNotifySocketPam> raw = manager->pam();
   EXPECT_EQ(calls.notifyOptions, (std::vector<std::pair<int, int>>{{211, 1}, {213, 2}, {213, 1}}));

   // Initialized once: a second review of the flag enables nothing.
   raw->enabledIs(false);
   sm->handleInitialized();
   sm->initializedIs(true);
   EXPECT_FALSE(raw->enabled());
   raw->enabledIs(true);

   manager->useNetlinkIs(false);
   EXPECT_EQ(manager->pam(), raw);
   const int rawSd = raw->sd();
   manager->useNetlinkIs(true);
   auto* netlink = dynamic_cast<MrtNotifyNetlinkSocketPam*>(manager->pam().ptr());
   ASSERT_TRUE(netlink);
   EXPECT_TRUE(netlink->enabled());
   EXPECT_EQ(netlink->options(), noCache | wrongVif);
   EXPECT_EQ(netlink->bpfLen(), 16u);
   EXPECT_NE(std::find(calls.closed.begin(), calls.closed.end(), rawSd), calls.closed.end());
   EXPECT_FALSE(raw->enabled());
   manager->useNetlinkIs(true);
   EXPECT_EQ(manager->pam().ptr(), netlink);

   // The review follows the new socket: a report sent to its group arrives.
   auto tx = mrtNotifyNetlinkSocketPamFactory(Gant::Name("tx"), ns.name());
   tx->enableTxIs(true);
   NoCacheMessage report;
   report.sourceIs(ip("10.0.0.2"));
   report.groupIs(ip("239.1.2.3"));
   tx->txMrtNotification(report, 1);
   ASSERT_TRUE(pl.loop.runUntil([&] { return manager->noCacheCounter() == 1; }, 10));
   EXPECT_EQ(manager->noCacheMessage()->group(), ip("239.1.2.3"));
   EXPECT_EQ(manager->noCacheMessage()->intfId(), IntfId("Ethernet2"));

   // IPv6 upcalls come through netlink, whatever useNetlink says.
   auto v6 = mrtNotifyPamManagerFactory(Pakto::ipv6(), ns.name());
   const Gant::Ptr<MrtNotifySocketPam> first = v6->pam();
   EXPECT_TRUE(dynamic_cast<MrtNotifyNetlinkSocketPam*>(first.ptr()));
   v6->useNetlinkIs(true);
   v6->useNetlinkIs(false);
   EXPECT_EQ(v6->pam(), first);
   EXPECT_EQ(first->af(), Pakto::ipv6());
}

} // namespace
