// The upcall sockets' set-up and bookkeeping, the netlink pam's filter
// program as the kernel holds it, and the raw IPv6 pam reading a socket
// handed to it. The kernel running the program is the manager's test.
#include "notify/SocketPam.h"
#include "notify/testlib/NotifyCalls.h"
#include "notify/testlib/RouterAndHost.h"

#include "flashlog/Capture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cstdlib>

namespace {

using namespace Routing::Multicast::Notify;
using namespace Routing::Multicast::Notify::Test;
using Options = std::vector<std::pair<int, int>>;

// The raw socket the pam opens stands in as a datagram socket: what these
// tests look at is which options reach it.
Sys::Fd standIn() { return Sys::Fd(::socket(AF_INET, SOCK_DGRAM, 0)); }

struct NoNetlink {
   NoNetlink() { ::setenv("MCAST_NO_NETLINK", "1", 1); }
   ~NoNetlink() { ::unsetenv("MCAST_NO_NETLINK"); }
};

// code, jt, jf, k
using Insn = std::array<uint32_t, 4>;
using Program = std::vector<Insn>;

// Up to the upcall type in A: a cache report of the family, its type attribute found.
Program head(bool v4) {
   return {{0x28, 0, 0, 4},          {0x15, 1, 0, 0x6000}, {0x06, 0, 0, 0},  {0x30, 0, 0, 16},
           {0x15, 1, 0, v4 ? 128u : 129u}, {0x06, 0, 0, 0}, {0x00, 0, 0, 20}, {0x01, 0, 0, v4 ? 8u : 1u},
           {0x20, 0, 0, 0xFFFFF00C}, {0x07, 0, 0, 0},      {0x50, 0, 0, 4}};
}
constexpr Insn accept{0x06, 0, 0, 0xFFFFFFFF}, drop{0x06, 0, 0, 0};
constexpr Insn is(uint32_t type) { return {0x15, 0, 1, type}; }

Program attached(int sd) {
   socklen_t n = 0; // in instructions
   if (::getsockopt(sd, SOL_SOCKET, SO_GET_FILTER, nullptr, &n) != 0) return {};
   std::vector<sock_filter> f(n);
   if (::getsockopt(sd, SOL_SOCKET, SO_GET_FILTER, f.data(), &n) != 0) return {};
   Program p;
   for (const sock_filter& i : f) p.push_back({i.code, i.jt, i.jf, i.k});
   return p;
}

TEST(MrtNotifySocketPam, AsksForEachUpcallKindInBitOrderAndOnlyOnChange) {
   PamLoop pl;
   NotifyCalls calls;
   const struct {
      uint32_t before;
      bool enable;
      uint32_t after;
      Options onEnable, onChange;
   } cases[] = {
       // No cache on and wrong interface off in one call: the bits in order.
       {0x1, true, 0x2, {{211, 1}, {213, 2}}, {{214, 2}, {213, 1}}},
       {0x7, true, 0x7, {{211, 1}, {213, 2}, {213, 1}, {213, 3}}, {}},
       {0x5, true, 0x0, {{211, 1}, {213, 2}, {213, 3}}, {{214, 2}, {214, 3}}},
       // Disabled, there is no socket to touch.
       {0x0, false, 0x5, {}, {}},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.before);
      calls.notifyOptions.clear(), calls.opened.clear();
      calls.rawSocket = standIn();
      auto pam = mrtNotifySocketPamFactory(Gant::Name("raw"));
      pam->optionsIs(c.before);
      if (c.enable) pam->enabledIs(true);
      EXPECT_EQ(calls.notifyOptions, c.onEnable);
      calls.notifyOptions.clear();
      pam->optionsIs(c.after);
      EXPECT_EQ(calls.notifyOptions, c.onChange);
      EXPECT_EQ(pam->options(), c.after);
      EXPECT_EQ(calls.opened.size(), c.enable ? 1u : 0u);
   }

   // A refused change keeps the old set; the pam keeps reading.
   calls.rawSocket = standIn();
   auto pam = mrtNotifySocketPamFactory(Gant::Name("raw"));
   pam->enabledIs(true);
   calls.fault = {"setsockopt", IPPROTO_IP, 213, 1, ENOBUFS};
   try {
      pam->optionsIs(0x3);
      ADD_FAILURE() << "no error";
   } catch (const Gant::ErrnoError& e) {
      EXPECT_STREQ(e.what(), "setsockopt(IGMP_NOCACHE)");
   }
   EXPECT_EQ(pam->options(), 0u);
   EXPECT_TRUE(pam->enabled());
}

TEST(MrtNotifySocketPam, FailedSetUpClosesTheSocketAndLeavesThePamDisabledAndTheFilterProgram) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs root to force a receive buffer";
   PamLoop pl;
   using Fault = NotifyCalls::Fault;
   constexpr int any = Fault::anyValue;
   const struct {
      bool netlink;
      Pakto::AddressFamily af;
      uint32_t options;
      Fault fault;
      const char* what;
   } cases[] = {
       {false, Pakto::ipv4(), 0x0, {"socket", 0, 0, any, EMFILE}, "socket"},
       {false, Pakto::ipv4(), 0x0, {"setsockopt", IPPROTO_IP, 211, 1, EPERM}, "setsocketopt(MRT_NOTIFY_INIT)"},
       {false, Pakto::ipv4(), 0x7, {"setsockopt", IPPROTO_IP, 213, 3, ENOBUFS},
        "setsocketopt(MRT_NOTIFY_ADD), WHOLEPKT"},
       {true, Pakto::ipv6(), 0x2, {"socket", 0, 0, any, EMFILE}, "socket"},
       {true, Pakto::ipv6(), 0x2, {"bind", 0, 0, any, EADDRINUSE}, "MrtNotifyNetlinkSocketPam::doSockInit: bind"},
       {true, Pakto::ipv6(), 0x2, {"setsockopt", SOL_SOCKET, SO_RCVBUFFORCE, any, EPERM},
        "setsocketopt(SO_RCVBUFFORCE)"},
       {true, Pakto::ipv4(), 0x3, {"setsockopt", SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, 30, EINVAL},
        "setsocketopt(NETLINK_ADD_MEMBERSHIP, RTNLGRP_IPV6_MROUTE_R)"},
       {true, Pakto::ipv6(), 0x5, {"setsockopt", SOL_SOCKET, SO_ATTACH_FILTER, any, ENOMEM},
        "setsockopt(SO_ATTACH_FILTER)"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      NotifyCalls calls;
      calls.fault = c.fault;
      calls.rawSocket = standIn();
      Gant::Ptr<MrtNotifySocketPam> pam = mrtNotifySocketPamFactory(Gant::Name("raw"));
      if (c.netlink) pam = mrtNotifyNetlinkSocketPamFactory(Gant::Name("nl"), {});
      pam->afIs(c.af);
      pam->optionsIs(c.options);
      try {
         pam->enabledIs(true);
         ADD_FAILURE() << "no error";
      } catch (const Gant::ErrnoError& e) {
         EXPECT_STREQ(e.what(), c.what);
         EXPECT_EQ(e.errorNo(), c.fault.err);
      }
      EXPECT_FALSE(pam->enabled());
      EXPECT_EQ(pam->sd(), -1);
      EXPECT_EQ(calls.closed, calls.opened);

      // Once the fault is gone the same pam comes up, with one whole program
      // for the kinds asked for since.
      calls.fault = {};
      calls.rawSocket = standIn();
      pam->optionsIs(c.options ^ 0x4);
      pam->enabledIs(true);
      EXPECT_TRUE(pam->enabled());
      if (c.netlink) {
         EXPECT_EQ(static_cast<MrtNotifyNetlinkSocketPam&>(*pam).bpfLen(), 12u + 2 * std::popcount(c.options ^ 0x4));
      }
      pam->enabledIs(false);
   }

   // The netlink pam's program follows the kinds asked for.
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
      EXPECT_EQ(attached(s.pam->sd()), expected);
   }
}

TEST(MrtNotifySocketPam, Ipv6DeliversOnlyUpcallsFromTheSocketItWasGiven) {
   PamLoop pl;
   int ends[2];
   ASSERT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);
   Sys::Fd in(ends[0]), out(ends[1]);
   Flashlog::Capture capture("Mroute::MrtNotifyPam=5");
   auto pam = mrtNotifySocketPamFactory(Gant::Name("raw6"));
   pam->afIs(Pakto::ipv6());

   // Upcalls come through netlink unless the environment says otherwise.
   pam->sdIs(in.get());
   pam->enabledIs(true);
   EXPECT_FALSE(pam->enabled());
   EXPECT_EQ(pam->sd(), -1);

   NoNetlink noNetlink;
   pam->sdIs(in.get());
   pam->enabledIs(true);
   ASSERT_TRUE(pam->enabled());
   // An upcall (first byte 0), then a datagram that is none and an empty one,
   // neither of which replaces it as the packet handed on.
   const std::vector<uint8_t> upcall = {0, 1, 0, 0, 7, 7};
   for (const std::vector<uint8_t>& d : {upcall, std::vector<uint8_t>{1, 1, 0, 0}, std::vector<uint8_t>{}})
      ASSERT_EQ(::send(out.get(), d.data(), d.size(), 0), ssize_t(d.size()));
   ASSERT_TRUE(pl.loop.runUntil([&] { return pam->rxPktCount() == 3; }, 10));
   EXPECT_EQ(pam->rxMrt6msgCount(), 1u);
   ASSERT_TRUE(pam->rxPkt());
   EXPECT_EQ(std::vector<uint8_t>(pam->rxPkt()->data(), pam->rxPkt()->data() + pam->rxPkt()->size()), upcall);
   pam->enabledIs(false);
   EXPECT_GE(::fcntl(in.get(), F_GETFD), 0) << "the socket is its opener's";
   EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                  "void MrtNotifySocketPam::enabledIs(bool) Environment supports native netlink "
                                  "notifications. Ignoring",
                                  "Mrt pam is enabled", "raw6: Discarding non-mrt6msg packet",
                                  "raw6: Discarding empty packet", "Mrt pam is disabled"}));
}

using MrtNotifySocketPamDeathTest = ::testing::Test;

TEST_F(MrtNotifySocketPamDeathTest, Ipv6NeedsItsSocketAndNoOtherFamilyIsKnown) {
   NoNetlink noNetlink;
   auto pam = mrtNotifySocketPamFactory(Gant::Name("raw6"));
   pam->afIs(Pakto::ipv6());
   pam->sdIs(0);
   EXPECT_DEATH(pam->enabledIs(true), "sd_ && \"MrtNotifyPam for IPV6 currently \" \"supports setup only with "
                                      "file descriptors set\"");
   pam->afIs(Pakto::ipunknown());
   EXPECT_DEATH(pam->enabledIs(true), "0 && \"Unsupported Address Family\"");
}

} // namespace
