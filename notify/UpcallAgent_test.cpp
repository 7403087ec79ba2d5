// The upcall agent as a routing process runs it (manager and review machine
// on an epoll loop, in a network namespace of its own) fed through real
// netlink sockets: reports forged by an unprivileged process, a flood that
// must leave the loop its turns, and a review that must not allocate.
#include "notify/MrtNotifySm.h"

#include "gant/Codec.h"
#include "gant/testlib/Allocations.h"
#include "loop/EpollLoop.h"
#include "pakto/PamFdSm.h"
#include "pakto/Socket.h"
#include "sys/Fd.h"

#include <gtest/gtest.h>

#include <grp.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Routing::Multicast::Notify;
using Bytes = std::vector<uint8_t>;
using Kind = Pakto::MrtMessageType;

constexpr uint32_t ipv6ReportGroup = 31;
constexpr int userSockProtocol = 2;
constexpr uid_t nobody = 65534;

// A namespace for one test, removed however the test ends.
class Netns {
 public:
   Netns() : name_("mcastfib-upcall-" + std::to_string(::getpid())) {
      if (std::system(("ip netns add " + name_).c_str()) != 0) throw std::runtime_error("ip netns add " + name_);
   }
   ~Netns() { (void)!std::system(("ip netns del " + name_).c_str()); }
   Netns(const Netns&) = delete;
   Netns& operator=(const Netns&) = delete;
   Pakto::NamespaceName name() const { return Pakto::NamespaceName(name_); }

 private:
   std::string name_;
};

// Sets (or, given null, clears) an environment variable for its lifetime.
class EnvVar {
 public:
   EnvVar(const char* name, const char* value) : name_(name) {
      if (const char* old = std::getenv(name)) old_ = old;
      value ? ::setenv(name, value, 1) : ::unsetenv(name);
   }
   ~EnvVar() { old_ ? ::setenv(name_, old_->c_str(), 1) : ::unsetenv(name_); }
   EnvVar(const EnvVar&) = delete;
   EnvVar& operator=(const EnvVar&) = delete;

 private:
   const char* name_;
   std::optional<std::string> old_;
};

Pakto::IpGenAddr ip(const char* text) { return Gant::fromText<Pakto::IpGenAddr>(text); }

// An IPv6 cache report laid out as the kernel writes one, for the bytes a
// forger would send.
Bytes report(uint8_t kind, uint32_t mif, uint8_t family = 129) {
   Bytes b(20, 0);
   b[4] = 96, b[16] = family;
   auto attr = [&b](uint16_t type, const void* payload, uint16_t bytes) {
      const uint16_t header[2] = {uint16_t(4 + bytes), type};
      const std::size_t at = b.size();
      b.resize(at + ((4u + bytes + 3) & ~3u));
      std::memcpy(&b[at], header, 4);
      std::memcpy(&b[at + 4], payload, bytes);
   };
   attr(1, &kind, 1);
   attr(2, &mif, 4);
   attr(3, ip("2001:db8::1").bytes().data(), 16);
   attr(4, ip("ff3e::1").bytes().data(), 16);
   const uint32_t len = uint32_t(b.size());
   std::memcpy(b.data(), &len, 4);
   return b;
}

// 0, or the errno of a send to the report group (a user-socket group send
// also goes to port 0, which refuses it after the group has its copy).
int sendToGroup(int sd, const Bytes& b) {
   sockaddr_nl to{};
   to.nl_family = AF_NETLINK;
   to.nl_groups = 1u << (ipv6ReportGroup - 1);
   if (::sendto(sd, b.data(), b.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) >= 0) return 0;
   return errno == ECONNREFUSED ? 0 : errno;
}

// An upcall for the sender's transmit side.
Gant::Ptr<Pakto::MrtMessage> upcall(Kind kind) {
   auto m = Gant::make<Pakto::MrtMessage>(kind);
   m->sourceIs(ip("2001:db8::1"));
   m->groupIs(ip("ff3e::1"));
   if (kind == Kind::WholePkt) {
      Bytes packet(64, 0);
      packet[0] = 0x60;
      std::memcpy(&packet[8], ip("2001:db8::2").bytes().data(), 16);
      std::memcpy(&packet[24], ip("ff3e::2").bytes().data(), 16);
      Gant::Ptr<Pakto::Pkt> p(new Pakto::Pkt(packet.size()));
      p->assign(packet.data(), packet.size());
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
   std::optional<Netns> ns;
   std::optional<EnvVar> noNetlink;
   Loop::EpollLoop loop;
   Gant::Ptr<Routing::KernelMfib::Status> status = Routing::KernelMfib::statusFactory(L3::VrfName("default"));
   Gant::Ptr<MrtNotifyPamManager> manager;
   Gant::Ptr<MrtNotifySm> sm;
   Gant::Ptr<MrtNotifyNetlinkSocketPam> sender;

   void SetUp() override {
      if (::geteuid() != 0) GTEST_SKIP() << "needs root for a network namespace";
   }
   void start(bool userSocket = true) {
      ns.emplace();
      noNetlink.emplace("MCAST_NO_NETLINK", userSocket ? "1" : nullptr);
      Pakto::eventLoopIs(&loop);
      status->intfIdCollIs(3, Pakto::IntfId("Ethernet3"));
      manager = mrtNotifyPamManagerFactory(Pakto::ipv6(), ns->name());
      manager->pam()->optionsIs(0x7);
      sm = mrtNotifySmFactory(manager, status);
      sender = mrtNotifyNetlinkSocketPamFactory(Gant::Name("sender"), ns->name());
      sender->afIs(Pakto::ipv6());
      sender->enableTxIs(true);
   }
   ~Agent() override {
      sm = nullptr;
      manager = nullptr;
      Pakto::eventLoopIs(nullptr);
   }
   MrtNotifyNetlinkSocketPam& pam() { return static_cast<MrtNotifyNetlinkSocketPam&>(*manager->pam()); }
   uint64_t counted() const {
      return manager->noCacheCounter() + manager->wrongVifCounter() + manager->wholePktCounter();
   }
   // Room for `bytes` of queued reports, beyond what the pam asks for.
   void receiveBufferIs(uint32_t bytes) {
      ASSERT_EQ(::setsockopt(pam().sd(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes), 0);
   }
};

// Runs f(user-socket, routing-socket) in a child process that opened both in
// the namespace as root and then became nobody; the child's exit status.
int asNobody(const Pakto::NamespaceName& ns, const std::function<int(int, int)>& f) {
   const pid_t pid = ::fork();
   if (pid == 0) {
      const Sys::Result user = Pakto::openSocket(ns, AF_NETLINK, SOCK_RAW, userSockProtocol);
      const Sys::Result route = Pakto::openSocket(ns, AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
      if (!user.ok() || !route.ok()) ::_exit(90);
      if (::setgroups(0, nullptr) || ::setgid(nobody) || ::setuid(nobody) || ::getuid() != nobody) ::_exit(91);
      ::_exit(f(int(user.value), int(route.value)));
   }
   int status = 0;
   ::waitpid(pid, &status, 0);
   return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST_F(Agent, ReportsFromAnUnprivilegedProcessAreDroppedUnread) {
   start();
   receiveBufferIs(1 << 20);
   // Valid-looking reports, and damaged ones that pass the in-kernel filter
   // (an unmapped mif, which the parser holds the kernel never sends).
   const std::vector<Bytes> arriving = [] {
      std::vector<Bytes> v(5, report(1, 3));
      v.insert(v.end(), 3, report(2, 3));
      v.push_back(report(1, 7));
      Bytes lying = report(1, 3);
      lying[0] = 0xff, lying.insert(lying.end(), 40, 0xa5);
      v.push_back(lying);
      return v;
   }();
   // Garbage the filter drops in the kernel: never read at all.
   const std::vector<Bytes> filtered = {Bytes(64, 0xa5), report(1, 3, 2), report(9, 3)};

   const int child = asNobody(ns->name(), [&](int user, int route) {
      for (const auto* batch : {&arriving, &filtered})
         for (const Bytes& b : *batch)
            if (sendToGroup(user, b) != 0) return 1;
      // Claiming root's credentials is refused to nobody.
      ucred root{::getpid(), 0, 0};
      alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof root)] = {};
      Bytes forged = arriving[0];
      iovec iov{forged.data(), forged.size()};
      sockaddr_nl to{};
      to.nl_family = AF_NETLINK, to.nl_groups = 1u << (ipv6ReportGroup - 1);
      msghdr msg{};
      msg.msg_name = &to, msg.msg_namelen = sizeof to, msg.msg_iov = &iov, msg.msg_iovlen = 1;
      msg.msg_control = control, msg.msg_controllen = sizeof control;
      cmsghdr* c = CMSG_FIRSTHDR(&msg);
      c->cmsg_level = SOL_SOCKET, c->cmsg_type = SCM_CREDENTIALS, c->cmsg_len = CMSG_LEN(sizeof root);
      std::memcpy(CMSG_DATA(c), &root, sizeof root);
      if (::sendmsg(user, &msg, 0) >= 0 || errno != EPERM) return 2;
      // And so is any send to the routing socket's group.
      if (sendToGroup(route, arriving[0]) != EPERM) return 3;
      return 0;
   });
   ASSERT_EQ(child, 0);

   ASSERT_TRUE(loop.runUntil([&] { return pam().rxForgedCount() == arriving.size(); }, 2));
   EXPECT_EQ(counted(), 0u);
   // Root's report is read and counted; nothing filtered came in between.
   sender->txMrtNotification(*upcall(Kind::NoCache), 3);
   ASSERT_TRUE(loop.runUntil([&] { return manager->noCacheCounter() == 1; }, 2));
   EXPECT_EQ(counted(), 1u);
   EXPECT_EQ(pam().rxForgedCount(), arriving.size());
   EXPECT_EQ(pam().rxPktCount(), arriving.size() + 1);
}

TEST_F(Agent, TheRoutingSocketReadsOnlyTheKernelsReports) {
   start(false);
   ASSERT_TRUE(pam().isRtnlIpv6MrouteRSupported());
   // Root may send to the routing group, from a port of its own.
   const Sys::Result opened = Pakto::openSocket(ns->name(), AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
   ASSERT_TRUE(opened.ok());
   Sys::Fd route(int(opened.value));
   ASSERT_EQ(sendToGroup(route.get(), report(1, 3)), 0);
   ASSERT_TRUE(loop.runUntil([&] { return pam().rxForgedCount() == 1; }, 2));
   EXPECT_EQ(pam().rxPktCount(), 1u);
   EXPECT_EQ(counted(), 0u);
}

TEST_F(Agent, AFloodIsReviewedInSlicesWithTheLoopTurningBetween) {
   start();
   constexpr double quantum = 0.005, tick = 0.02;
   sm->loopQuantumIs(quantum);
   receiveBufferIs(64 << 20);
   // All queued before the loop runs.
   const struct {
      Kind kind;
      uint32_t count;
   } sent[] = {{Kind::NoCache, 15000}, {Kind::WrongVif, 10000}, {Kind::WholePkt, 5000}};
   uint32_t total = 0;
   for (const auto& s : sent) {
      const auto message = upcall(s.kind);
      for (uint32_t i = 0; i < s.count; ++i) sender->txMrtNotification(*message, 3);
      total += s.count;
   }

   int ticks = 0;
   Loop::Timer timer = loop.timerAfter(tick, [&] {
      ++ticks;
      timer.rearm(tick);
   });
   // The loop's turns, each timed whole: the review it ran, if any, then the
   // timer's run if due.
   struct Turn {
      double seconds, waited;
      uint64_t read;
      int ticks;
   };
   std::vector<Turn> turns;
   const double giveUp = loop.now() + 4;
   while (counted() < total && loop.now() < giveUp) {
      const uint64_t read = pam().rxPktCount();
      const int ticked = ticks;
      const double waited = runQueueWait(), start = loop.now();
      loop.runOnce(1);
      const double seconds = loop.now() - start;
      turns.push_back({seconds, runQueueWait() - waited, pam().rxPktCount() - read, ticks - ticked});
   }
   EXPECT_EQ(manager->noCacheCounter(), sent[0].count);
   EXPECT_EQ(manager->wrongVifCounter(), sent[1].count);
   EXPECT_EQ(manager->wholePktCounter(), sent[2].count);

   std::size_t reviews = 0, ticksBetween = 0, last = 0;
   for (std::size_t i = 0; i < turns.size(); ++i) {
      if (!turns[i].read) continue;
      ++reviews;
      last = i;
      // Time the thread spent waiting for a CPU is the machine's, not the review's.
      EXPECT_LE(turns[i].seconds - turns[i].waited, quantum + 0.010)
          << "review " << reviews << " read " << turns[i].read << " in " << turns[i].seconds << " s, "
          << turns[i].waited << " s of it waiting for a CPU";
   }
   for (std::size_t i = 0; i < last; ++i) ticksBetween += std::size_t(turns[i].ticks);
   EXPECT_GE(reviews, 3u);
   EXPECT_GE(ticksBetween, 2u) << "the timer ran between reviews";
}

TEST_F(Agent, AWarmReviewAllocatesNothingPerUpcall) {
   start();
   receiveBufferIs(1 << 20);
   const Kind kinds[] = {Kind::NoCache, Kind::WrongVif, Kind::WholePkt};
   auto queue = [&](int each) {
      for (Kind k : kinds)
         for (int i = 0; i < each; ++i) sender->txMrtNotification(*upcall(k), 3);
   };
   queue(2);
   EXPECT_EQ(sm->rxPkt(), 6u);
   queue(50);
   const std::size_t before = Gant::Test::allocations();
   ASSERT_GT(before, 0u) << "operator new is counted";
   EXPECT_EQ(sm->rxPkt(), 150u);
   EXPECT_EQ(Gant::Test::allocations(), before);
   EXPECT_EQ(counted(), 156u);
}

} // namespace
