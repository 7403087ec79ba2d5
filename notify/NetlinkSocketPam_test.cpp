// The netlink pam's filter program, as it holds it and as the kernel holds
// it, and the kernel running it on the cache reports of a router namespace.
#include "notify/Notify.h"
#include "notify/testlib/RouterAndHost.h"

#include "pakto/Socket.h"

#include <gtest/gtest.h>

#include <linux/filter.h>
#include <linux/netlink.h>
#include <unistd.h>

#include <array>
#include <functional>

namespace {

using namespace Routing::Multicast::Notify;
using namespace Routing::Multicast::Notify::Test;
using Pakto::MrtMessageType;

// code, jt, jf, k
using Insn = std::array<uint32_t, 4>;
using Program = std::vector<Insn>;

// Up to the upcall type in A: a cache report of the family, its type attribute found.
Program head(bool v4) {
   return {{0x28, 0, 0, 4},  {0x15, 1, 0, 0x6000},     {0x06, 0, 0, 0}, {0x30, 0, 0, 16},
           {0x15, 1, 0, v4 ? 128u : 129u}, {0x06, 0, 0, 0}, {0x00, 0, 0, 20}, {0x01, 0, 0, v4 ? 8u : 1u},
           {0x20, 0, 0, 0xFFFFF00C}, {0x07, 0, 0, 0},     {0x50, 0, 0, 4}};
}
constexpr Insn accept{0x06, 0, 0, 0xFFFFFFFF}, drop{0x06, 0, 0, 0};
constexpr Insn is(uint32_t type) { return {0x15, 0, 1, type}; }

Program held(const MrtNotifyNetlinkSocketPam& pam) {
   Program p;
   for (uint32_t i = 0; i < pam.bpfLen(); ++i) {
      const Pakto::IpFilter f = pam.rxFilter(uint8_t(i));
      p.push_back({f.code(), f.jt(), f.jf(), f.k()});
   }
   return p;
}

Program attached(int sd) {
   socklen_t n = 0; // in instructions
   if (::getsockopt(sd, SOL_SOCKET, SO_GET_FILTER, nullptr, &n) != 0) return {};
   std::vector<sock_filter> f(n);
   if (::getsockopt(sd, SOL_SOCKET, SO_GET_FILTER, f.data(), &n) != 0) return {};
   Program p;
   for (const sock_filter& i : f) p.push_back({i.code, i.jt, i.jf, i.k});
   return p;
}

int intOption(int sd, int level, int name) {
   int v = -1;
   socklen_t len = sizeof v;
   return ::getsockopt(sd, level, name, &v, &len) == 0 ? v : -1;
}

// Groups 1 to 32 joined, as bits. The kernel answers with the length the
// family's groups need, which may be more than it wrote.
uint32_t firstGroups(int sd) {
   uint32_t groups[8] = {};
   socklen_t len = sizeof groups;
   return ::getsockopt(sd, SOL_NETLINK, NETLINK_LIST_MEMBERSHIPS, groups, &len) == 0 ? groups[0] : 0;
}

TEST(MrtNotifyNetlinkSocketPam, TheProgramFollowsTheKindsAskedFor) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs root to force a receive buffer";
   PamLoop pl;
   Netns ns("alone");
   auto v6 = mrtNotifyNetlinkSocketPamFactory(Gant::Name("v6"), ns.name());
   v6->afIs(Pakto::ipv6());
   auto v4 = mrtNotifyNetlinkSocketPamFactory(Gant::Name("v4"), ns.name());
   const struct {
      MrtNotifyNetlinkSocketPam* pam;
      uint32_t options;
      Program tail;
   } steps[] = {
       {v6.ptr(), 0x5, {is(2), accept, is(3), accept, drop}},
       // Changed while enabled: the program is replaced, not extended.
       {v6.ptr(), 0x0, {drop}},
       {v6.ptr(), 0x7, {is(1), accept, is(2), accept, is(3), accept, drop}},
       {v4.ptr(), 0x2, {is(1), accept, drop}},
   };
   for (const auto& s : steps) {
      SCOPED_TRACE(s.pam->name() + " " + std::to_string(s.options));
      s.pam->optionsIs(s.options);
      if (!s.pam->enabled()) {
         EXPECT_EQ(s.pam->bpfLen(), 0u) << "no socket, nothing generated";
         s.pam->enabledIs(true);
      }
      Program expected = head(s.pam == v4.ptr());
      expected.insert(expected.end(), s.tail.begin(), s.tail.end());
      EXPECT_EQ(held(*s.pam), expected);
      EXPECT_EQ(attached(s.pam->sd()), expected);
   }

   // IPv6 reports come from the routing socket; IPv4 ones from the user
   // socket, whose senders are told by their credentials.
   const struct {
      MrtNotifyNetlinkSocketPam* pam;
      int type, protocol;
      uint32_t group;
      int passCred;
   } sockets[] = {{v6.ptr(), SOCK_DGRAM, NETLINK_ROUTE, 31, 0}, {v4.ptr(), SOCK_RAW, 2, 30, 1}};
   for (const auto& s : sockets) {
      SCOPED_TRACE(s.pam->name());
      const int sd = s.pam->sd();
      EXPECT_EQ(intOption(sd, SOL_SOCKET, SO_TYPE), s.type);
      EXPECT_EQ(intOption(sd, SOL_SOCKET, SO_PROTOCOL), s.protocol);
      EXPECT_EQ(firstGroups(sd), 1u << (s.group - 1));
      EXPECT_EQ(intOption(sd, SOL_SOCKET, SO_PASSCRED), s.passCred);
   }
}

TEST(MrtNotifyNetlinkSocketPam, TheKernelDropsReportsOfKindsNotAskedFor) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs root for network namespaces";
   PamLoop pl;
   RouterAndHost net;
   Sys::Fd mroute = net.mroute6(true);
   auto status = Routing::KernelMfib::statusFactory(L3::VrfName("default"));
   status->intfIdCollIs(0, Pakto::IntfId("Ethernet1"));
   status->intfIdCollIs(1, Pakto::IntfId("Ethernet2"));
   auto parser = mrtNotifyPamManagerFactory(Pakto::ipv6(), Pakto::NamespaceName());
   const auto kind = [&](const Gant::Ptr<Pakto::Pkt>& pkt) {
      const Gant::Ptr<Pakto::MrtMessage> m = parser->readMrtMessage(pkt, status);
      return m ? m->type() : MrtMessageType(0);
   };

   // Every report the kernel sends, on a socket without a program.
   const Sys::Result opened = Pakto::openSocket(net.router(), AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE);
   ASSERT_TRUE(opened.ok());
   Sys::Fd all(int(opened.value));
   // Bound, it has a port: the kernel's reports skip port 0, its own.
   sockaddr_nl local{};
   local.nl_family = AF_NETLINK;
   ASSERT_EQ(::bind(all.get(), reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
   const int group = 31;
   ASSERT_EQ(::setsockopt(all.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group), 0);
   std::vector<MrtMessageType> sent, read;
   Loop::Watch watch = pl.loop.watchReadable(all.get(), [&] {
      uint8_t buf[4096];
      const ssize_t n = ::recv(all.get(), buf, sizeof buf, 0);
      Gant::Ptr<Pakto::Pkt> pkt(new Pakto::Pkt(sizeof buf));
      pkt->assign(buf, n > 0 ? std::size_t(n) : 0);
      sent.push_back(kind(pkt));
   });

   auto pam = mrtNotifyNetlinkSocketPamFactory(Gant::Name("filtered"), net.router());
   struct Read : MrtNotifyNetlinkSocketPam::Reactor {
      Read(MrtNotifyNetlinkSocketPam* p, std::function<void()> f) : Reactor(p), f(std::move(f)) {}
      void onRxPkt() override { f(); }
      std::function<void()> f;
   } reactor(pam.ptr(), [&] { read.push_back(kind(pam->rxPkt())); });
   pam->afIs(Pakto::ipv6());
   pam->optionsIs(uint32_t(MrtNotifySocketOptions::igmpNoCache));
   pam->enabledIs(true);

   // The wrong-interface report stops in the kernel; the no-cache report
   // raised after it comes through, and alone.
   net.sendUdp(AF_INET6, 1, "ff0e::1:4", mroute.get());
   net.sendUdp(AF_INET6, 1, "ff0e::1:5");
   ASSERT_TRUE(pl.loop.runUntil([&] { return sent.size() == 2 && read.size() == 1; }, 10));
   EXPECT_EQ(sent, (std::vector{MrtMessageType::WrongVif, MrtMessageType::NoCache}));
   EXPECT_EQ(read, (std::vector{MrtMessageType::NoCache}));
   EXPECT_EQ(pam->rxPktCount(), 1u);

   // Asked for while enabled, the next one comes through.
   pam->optionsIs(uint32_t(MrtNotifySocketOptions::igmpNoCache) | uint32_t(MrtNotifySocketOptions::igmpWrongVif));
   net.sendUdp(AF_INET6, 1, "ff0e::1:4", mroute.get());
   ASSERT_TRUE(pl.loop.runUntil([&] { return sent.size() == 3 && read.size() == 2; }, 10));
   EXPECT_EQ(read, (std::vector{MrtMessageType::NoCache, MrtMessageType::WrongVif}));
   EXPECT_EQ(pam->rxPktCount(), 2u);
}

} // namespace
