// Kernel upcalls, in one run:
// - parsing one no-cache report already in a packet, beside one recvmsg of
//   the same report from a netlink user socket (with the sender's
//   credentials, as the pam reads it), timed side by side;
// - upcalls per second from a sender process writing reports to the group
//   at full speed to the agent's loop and counters, and what was dropped,
//   with the receive buffer the pam sets itself and with one forced larger.
#include "notify/MrtNotifySm.h"

#include "loop/EpollLoop.h"
#include "pakto/PamFdSm.h"
#include "pakto/Socket.h"
#include "sys/Fd.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace Routing::Multicast::Notify;
using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr int userSockProtocol = 2;
constexpr uint32_t ipv6ReportGroup = 31;

double threadCpuSeconds() {
   rusage usage;
   ::getrusage(RUSAGE_THREAD, &usage);
   const auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
   return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

// A no-cache report for mif 3 as the kernel lays it out for IPv6.
Bytes report() {
   Bytes b(20, 0);
   b[4] = 96, b[16] = 129;
   auto attr = [&b](uint16_t type, const void* payload, uint16_t bytes) {
      const uint16_t header[2] = {uint16_t(4 + bytes), type};
      const std::size_t at = b.size();
      b.resize(at + ((4u + bytes + 3) & ~3u));
      std::memcpy(&b[at], header, 4);
      std::memcpy(&b[at + 4], payload, bytes);
   };
   const uint8_t kind = 1;
   const uint32_t mif = 3;
   uint8_t source[16] = {0x20, 0x01, 0x0d, 0xb8}, group[16] = {0xff, 0x3e};
   source[15] = 1, group[15] = 1;
   attr(1, &kind, 1);
   attr(2, &mif, 4);
   attr(3, source, 16);
   attr(4, group, 16);
   const uint32_t len = uint32_t(b.size());
   std::memcpy(b.data(), &len, 4);
   return b;
}

Gant::Ptr<Routing::KernelMfib::Status> mifMap() {
   auto status = Routing::KernelMfib::statusFactory(L3::VrfName("default"));
   status->intfIdCollIs(3, Pakto::IntfId("Ethernet3"));
   return status;
}

void BM_Upcall_ParseVsRecvmsg(benchmark::State& state) {
   constexpr int batch = 512;
   const Bytes r = report();
   // A receiver with credentials passed, and a sender to its port.
   Sys::Fd rx(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, userSockProtocol));
   Sys::Fd tx(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, userSockProtocol));
   sockaddr_nl local{};
   local.nl_family = AF_NETLINK;
   socklen_t localLen = sizeof local;
   const int on = 1, room = 8 << 20;
   if (::bind(rx.get(), reinterpret_cast<sockaddr*>(&local), sizeof local) != 0 ||
       ::getsockname(rx.get(), reinterpret_cast<sockaddr*>(&local), &localLen) != 0 ||
       ::setsockopt(rx.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0 ||
       ::setsockopt(rx.get(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) != 0) {
      state.SkipWithError("netlink user socket");
      return;
   }
   auto manager = mrtNotifyPamManagerFactory(Pakto::ipv6(), Pakto::NamespaceName());
   const auto status = mifMap();
   Gant::Ptr<Pakto::Pkt> parsed(new Pakto::Pkt(r.size()));
   parsed->assign(r.data(), r.size());
   Pakto::Pkt received(65535);

   double recvSeconds = 0, parseSeconds = 0;
   for (auto _ : state) {
      state.PauseTiming();
      for (int i = 0; i < batch; ++i)
         (void)!::sendto(tx.get(), r.data(), r.size(), 0, reinterpret_cast<const sockaddr*>(&local), sizeof local);
      state.ResumeTiming();
      // As the pam reads: the sender's address and credentials too.
      Clock::time_point start = Clock::now();
      for (int i = 0; i < batch; ++i) {
         received.reserve(65535);
         iovec iov{received.data(), received.size()};
         sockaddr_nl from{};
         alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof(ucred))];
         msghdr msg{};
         msg.msg_name = &from, msg.msg_namelen = sizeof from, msg.msg_iov = &iov, msg.msg_iovlen = 1;
         msg.msg_control = control, msg.msg_controllen = sizeof control;
         benchmark::DoNotOptimize(::recvmsg(rx.get(), &msg, MSG_DONTWAIT));
      }
      recvSeconds += since(start);
      start = Clock::now();
      for (int i = 0; i < batch; ++i) benchmark::DoNotOptimize(manager->readMrtMessage(parsed, status).ptr());
      parseSeconds += since(start);
   }
   if (manager->noCacheCounter() != uint32_t(state.iterations() * batch)) state.SkipWithError("not parsed");
   const double n = double(state.iterations() * batch);
   state.counters["recvmsg_ns"] = recvSeconds / n * 1e9;
   state.counters["parse_ns"] = parseSeconds / n * 1e9;
   state.counters["parse_to_recvmsg"] = parseSeconds / recvSeconds;
}
BENCHMARK(BM_Upcall_ParseVsRecvmsg);

// A namespace for one run, removed when it ends.
class Netns {
 public:
   Netns() : name_("mcastfib-upcall-bench-" + std::to_string(::getpid())) {
      ok_ = std::system(("ip netns add " + name_).c_str()) == 0;
   }
   ~Netns() {
      if (ok_) (void)!std::system(("ip netns del " + name_).c_str());
   }
   Netns(const Netns&) = delete;
   Netns& operator=(const Netns&) = delete;
   bool ok() const { return ok_; }
   Pakto::NamespaceName name() const { return Pakto::NamespaceName(name_); }

 private:
   std::string name_;
   bool ok_ = false;
};

// The kernel's count of datagrams dropped for the netlink socket sd, from
// its namespace's /proc/net/netlink.
long kernelDrops(const Pakto::NamespaceName& ns, int sd) {
   struct stat st;
   const Sys::Result opened = Pakto::openFile(ns, "/proc/net/netlink");
   if (!opened.ok() || ::fstat(sd, &st) != 0) return -1;
   Sys::Fd file(int(opened.value));
   std::string text;
   char chunk[4096];
   for (ssize_t n; (n = ::read(file.get(), chunk, sizeof chunk)) > 0;) text.append(chunk, std::size_t(n));
   std::istringstream table(text);
   std::string line;
   std::getline(table, line); // sk Eth Pid Groups Rmem Wmem Dump Locks Drops Inode
   while (std::getline(table, line)) {
      std::istringstream row(line);
      std::string sk, groups;
      long eth, pid, rmem, wmem, dump, locks, drops;
      unsigned long inode;
      if (row >> sk >> eth >> pid >> groups >> rmem >> wmem >> dump >> locks >> drops >> inode && inode == st.st_ino)
         return drops;
   }
   return -1;
}

// range(0): 0 keeps the receive buffer the pam sets itself, else the bytes
// it is forced to.
void BM_Upcall_EndToEnd(benchmark::State& state) {
   constexpr uint32_t sent = 200000;
   if (::geteuid() != 0) {
      state.SkipWithError("needs root for a network namespace");
      return;
   }
   for (auto _ : state) {
      Netns ns;
      if (!ns.ok()) {
         state.SkipWithError("ip netns add");
         return;
      }
      const char* old = std::getenv("MCAST_NO_NETLINK");
      ::setenv("MCAST_NO_NETLINK", "1", 1);
      Loop::EpollLoop loop;
      Pakto::eventLoopIs(&loop);
      {
         auto manager = mrtNotifyPamManagerFactory(Pakto::ipv6(), ns.name());
         manager->pam()->optionsIs(0x7);
         auto sm = mrtNotifySmFactory(manager, mifMap());
         const int sd = manager->pam()->sd();
         if (const int room = int(state.range(0)))
            (void)!::setsockopt(sd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
         int rcvbuf = 0;
         socklen_t len = sizeof rcvbuf;
         (void)!::getsockopt(sd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, &len);

         int done[2];
         if (::pipe2(done, O_CLOEXEC) != 0) std::abort();
         const Bytes r = report();
         const Clock::time_point start = Clock::now();
         const pid_t pid = ::fork();
         if (pid == 0) {
            const Sys::Result tx = Pakto::openSocket(ns.name(), AF_NETLINK, SOCK_RAW, userSockProtocol);
            if (!tx.ok()) ::_exit(1);
            sockaddr_nl to{};
            to.nl_family = AF_NETLINK, to.nl_groups = 1u << (ipv6ReportGroup - 1);
            for (uint32_t i = 0; i < sent; ++i)
               (void)!::sendto(int(tx.value), r.data(), r.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
            const double seconds = since(start);
            (void)!::write(done[1], &seconds, sizeof seconds);
            ::_exit(0);
         }
         ::close(done[1]);
         // Until the sender is done and nothing more comes for 100 ms.
         double sendSeconds = 0;
         bool senderDone = false;
         Loop::Watch sender = loop.watchReadable(done[0], [&] {
            senderDone = true;
            (void)!::read(done[0], &sendSeconds, sizeof sendSeconds);
            sender.reset();
         });
         uint32_t counted = 0;
         Clock::time_point last = start;
         const double cpuBefore = threadCpuSeconds();
         for (;;) {
            loop.runOnce(0.01);
            const uint32_t now = manager->noCacheCounter();
            if (now != counted) counted = now, last = Clock::now();
            else if (senderDone && since(last) > 0.1) break;
         }
         const double seconds = std::chrono::duration<double>(last - start).count();
         const double cpu = threadCpuSeconds() - cpuBefore;
         ::waitpid(pid, nullptr, 0);
         ::close(done[0]);
         state.counters["upcalls_per_s"] = counted / seconds;
         state.counters["sent_per_s"] = sent / sendSeconds;
         state.counters["dropped"] = sent - counted;
         state.counters["kernel_drops"] = double(kernelDrops(ns.name(), sd));
         state.counters["rcvbuf"] = rcvbuf;
         // The agent's own cost, idle turns included: what it could take.
         state.counters["agent_cpu_ns_per_upcall"] = cpu / counted * 1e9;
      }
      Pakto::eventLoopIs(nullptr);
      old ? ::setenv("MCAST_NO_NETLINK", old, 1) : ::unsetenv("MCAST_NO_NETLINK");
   }
}
BENCHMARK(BM_Upcall_EndToEnd)->Arg(0)->Arg(64 << 20)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace
