// The upcall agent as a routing process runs it (manager and review machine
// on an epoll loop, in a network namespace of its own) fed through real
// netlink sockets: reports forged by an unprivileged process, a flood that
// must leave the loop its turns, and a review that must not allocate.
#include "notify/MrtNotifySm.h"
#include "notify/testlib/RouterAndHost.h"

#include "gant/Codec.h"
#include "gant/testlib/Allocations.h"
#include "pakto/Socket.h"

#include <gtest/gtest.h>

#include <grp.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <vector>

namespace {

using namespace Routing::Multicast::Notify;
using namespace Routing::Multicast::Notify::Test;
using Bytes = std::vector<uint8_t>;
using Kind = Pakto::MrtMessageType;

constexpr uid_t nobody = 65534;

// MCAST_NO_NETLINK set or cleared for the object's lifetime.
struct NoNetlink {
   explicit NoNetlink(bool on) { on ? ::setenv("MCAST_NO_NETLINK", "1", 1) : ::unsetenv("MCAST_NO_NETLINK"); }
   ~NoNetlink() { ::unsetenv("MCAST_NO_NETLINK"); }
};

Pakto::IpGenAddr ip(const char* text) { return Gant::fromText<Pakto::IpGenAddr>(text); }

// An IPv6 cache report as a forger would send it: type and mif attributes.
Bytes report(uint8_t kind, uint8_t mif, uint8_t family = 129) {
   return {36, 0, 0, 0, 96, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, family, 0, 0, 0,
           5,  0, 1, 0, kind, 0, 0, 0, 8, 0, 2, 0, mif, 0, 0, 0};
}

// 0, or the errno of a send to the IPv6 report group, 31 (a user-socket
// group send also goes to port 0, which refuses it after the group has its copy).
int sendToGroup(int sd, const Bytes& b) {
   const sockaddr_nl to{AF_NETLINK, 0, 0, 1u << 30};
   if (::sendto(sd, b.data(), b.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) >= 0) return 0;
   return errno == ECONNREFUSED ? 0 : errno;
}

// An upcall for the sender's transmit side.
Gant::Ptr<Pakto::MrtMessage> upcall(Kind kind) {
   auto m = Gant::make<Pakto::MrtMessage>(kind);
   m->sourceIs(ip("2001:db8::1")), m->groupIs(ip("ff3e::1"));
   if (kind == Kind::WholePkt) {
      const uint8_t ipv6Header[64] = {0x60};
      Gant::Ptr<Pakto::Pkt> p(new Pakto::Pkt(sizeof ipv6Header));
      p->assign(ipv6Header, sizeof ipv6Header);
      m->pktIs(p);
   }
   return m;
}

// Seconds this thread has spent waiting for a CPU (the scheduler's run
// delay), 0 where the kernel does not say.
double runQueueWait() {
   std::ifstream stat("/proc/thread-self/schedstat");
   unsigned long long onCpu = 0, waiting = 0;
   stat >> onCpu >> waiting;
   return double(waiting) / 1e9;
}

// The agent in its namespace, reading IPv6 reports from the user-socket
// group (MCAST_NO_NETLINK) or the routing socket's own group; a root sender
// beside it that writes reports with the pam's transmit side.
struct Agent : ::testing::Test {
   PamLoop pl;
   Loop::EpollLoop& loop = pl.loop;
   std::optional<Netns> ns;
   std::optional<NoNetlink> noNetlink;
   Gant::Ptr<Routing::KernelMfib::Status> status = Routing::KernelMfib::statusFactory(L3::VrfName("default"));
   Gant::Ptr<MrtNotifyPamManager> manager;
   Gant::Ptr<MrtNotifySm> sm;
   Gant::Ptr<MrtNotifyNetlinkSocketPam> sender;

   void SetUp() override {
      if (::geteuid() != 0) GTEST_SKIP() << "needs root for a network namespace";
   }
   void start(bool userSocket = true) {
      ns.emplace("agent");
      noNetlink.emplace(userSocket);
      status->intfIdCollIs(3, Pakto::IntfId("Ethernet3"));
      manager = mrtNotifyPamManagerFactory(Pakto::ipv6(), ns->name());
      manager->pam()->optionsIs(0x7);
      sm = mrtNotifySmFactory(manager, status);
      sender = mrtNotifyNetlinkSocketPamFactory(Gant::Name("sender"), ns->name());
      sender->afIs(Pakto::ipv6());
      sender->enableTxIs(true);
   }
   MrtNotifyNetlinkSocketPam& pam() { return static_cast<MrtNotifyNetlinkSocketPam&>(*manager->pam()); }
   uint64_t counted() const {
      return manager->noCacheCounter() + manager->wrongVifCounter() + manager->wholePktCounter();
   }
   // `each` upcalls of every kind, written by the sender.
   void queue(uint32_t each) {
      for (Kind k : {Kind::NoCache, Kind::WrongVif, Kind::WholePkt})
         for (uint32_t i = 0; i < each; ++i) sender->txMrtNotification(*upcall(k), 3);
   }
   // Room for `bytes` of queued reports, beyond what the pam asks for.
   void receiveBufferIs(uint32_t bytes) {
      ASSERT_EQ(::setsockopt(pam().sd(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes), 0);
   }
};

TEST_F(Agent, ReportsFromAnyoneButTheKernelOrRootAreDroppedUnread) {
   start();
   receiveBufferIs(1 << 20);
   // Valid-looking reports, and damaged ones that pass the in-kernel filter
   // (an unmapped mif, which the parser holds the kernel never sends).
   const std::vector<Bytes> arriving = [] {
      Bytes lying = report(1, 3);
      lying[0] = 0xff, lying.insert(lying.end(), 40, 0xa5);
      return std::vector<Bytes>{report(1, 3), report(2, 3), report(1, 7), lying};
   }();
   // Garbage the filter drops in the kernel: never read at all.
   const std::vector<Bytes> filtered = {Bytes(64, 0xa5), report(1, 3, 2), report(9, 3)};

   // A child opens the user socket (protocol 2) and a routing socket in the
   // namespace as root, becomes nobody and sends.
   const pid_t pid = ::fork();
   if (pid == 0) {
      const Sys::Result user = Pakto::openSocket(ns->name(), AF_NETLINK, SOCK_RAW, 2);
      const Sys::Result route = Pakto::openSocket(ns->name(), AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
      if (!user.ok() || !route.ok() || ::setgroups(0, nullptr) || ::setgid(nobody) || ::setuid(nobody)) ::_exit(1);
      for (const auto* batch : {&arriving, &filtered})
         for (const Bytes& b : *batch)
            if (sendToGroup(int(user.value), b) != 0) ::_exit(2);
      // The routing socket's group is closed to nobody.
      ::_exit(sendToGroup(int(route.value), arriving[0]) == EPERM ? 0 : 3);
   }
   int child = -1;
   ASSERT_EQ(::waitpid(pid, &child, 0), pid);
   ASSERT_EQ(child, 0) << "exit status " << WEXITSTATUS(child);

   ASSERT_TRUE(loop.runUntil([&] { return pam().rxForgedCount() == arriving.size(); }, 2));
   EXPECT_EQ(counted(), 0u);
   // Root's report is read and counted; nothing filtered came in between.
   sender->txMrtNotification(*upcall(Kind::NoCache), 3);
   ASSERT_TRUE(loop.runUntil([&] { return manager->noCacheCounter() == 1; }, 2));
   EXPECT_EQ(counted(), 1u);
   EXPECT_EQ(pam().rxForgedCount(), arriving.size());
   EXPECT_EQ(pam().rxPktCount(), arriving.size() + 1);

   // The routing socket reads only the kernel's reports: root may send to its
   // group, but from a port of its own.
   start(false);
   ASSERT_TRUE(pam().isRtnlIpv6MrouteRSupported());
   const Sys::Result opened = Pakto::openSocket(ns->name(), AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
   ASSERT_TRUE(opened.ok());
   ASSERT_EQ(sendToGroup(Sys::Fd(int(opened.value)).get(), report(1, 3)), 0);
   ASSERT_TRUE(loop.runUntil([&] { return pam().rxForgedCount() == 1; }, 2));
   EXPECT_EQ(pam().rxPktCount(), 1u);
   EXPECT_EQ(counted(), 0u);
}

TEST_F(Agent, AReviewAllocatesNothingPerUpcallAndAFloodIsReviewedInSlicesWithTheLoopTurningBetween) {
   start();
   receiveBufferIs(64 << 20);
   // Warm, a review allocates nothing per upcall.
   queue(2);
   EXPECT_EQ(sm->rxPkt(), 6u);
   queue(50);
   const std::size_t before = Gant::Test::allocations();
   ASSERT_GT(before, 0u) << "operator new is counted";
   EXPECT_EQ(sm->rxPkt(), 150u);
   EXPECT_EQ(Gant::Test::allocations(), before);

   // A flood, all queued before the loop runs.
   constexpr double quantum = 0.005, tick = 0.02;
   constexpr uint32_t each = 10000 + 52, total = 3 * each;
   sm->loopQuantumIs(quantum);
   queue(10000);

   int ticks = 0;
   Loop::Timer timer = loop.timerAfter(tick, [&] {
      ++ticks;
      timer.rearm(tick);
   });
   // The loop's turns, each timed whole: the review it ran, if any, then the
   // timer's run if due.
   int reviews = 0, ticksBetween = 0;
   const double giveUp = loop.now() + 4;
   while (counted() < total && loop.now() < giveUp) {
      const uint64_t read = pam().rxPktCount();
      const int ticked = ticks;
      const double waited = runQueueWait(), start = loop.now();
      loop.runOnce(1);
      if (pam().rxPktCount() == read) continue;
      ++reviews, ticksBetween = ticked;
      // Time the thread spent waiting for a CPU is the machine's, not the review's.
      const double seconds = loop.now() - start, waiting = runQueueWait() - waited;
      EXPECT_LE(seconds - waiting, quantum + 0.010) << "review " << reviews << " read " << pam().rxPktCount() - read
                                                    << " in " << seconds << " s, " << waiting << " s of it waiting";
   }
   EXPECT_EQ(manager->noCacheCounter(), each);
   EXPECT_EQ(manager->wrongVifCounter(), each);
   EXPECT_EQ(manager->wholePktCounter(), each);
   EXPECT_GE(reviews, 3);
   EXPECT_GE(ticksBetween, 2) << "the timer ran between reviews";
}

} // namespace
