// Two network namespaces joined by a veth pair: the router side runs the
// kernel's IPv6 multicast routing (an mroute socket with the router's end as
// its only interface), the host side sends multicast datagrams. Each one
// that finds no route becomes a kernel report, filtered in the kernel, read
// through the upcall manager and its time-bounded review.
#include "tools/UpcallDemo.h"

#include "tools/Signals.h"

#include "loop/EpollLoop.h"
#include "notify/MrtNotifySm.h"
#include "pakto/PamFdSm.h"
#include "pakto/Socket.h"
#include "sys/Fd.h"

#include <linux/mroute6.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace Tool {

using namespace Routing::Multicast::Notify;

namespace {

// Runs an ip(8) command; a failure ends the section.
void ip(const std::string& args) {
   if (std::system(("ip " + args + " >/dev/null 2>&1").c_str()) != 0)
      throw std::runtime_error("ip " + args + " failed");
}

// The namespaces and their veth pair, gone with this object.
struct Lab {
   std::string router = "mcastfib-demo-r" + std::to_string(::getpid());
   std::string host = "mcastfib-demo-h" + std::to_string(::getpid());
   Lab() {
      ip("netns add " + router);
      ip("netns add " + host);
      // Named as this system names ports, so that the upcall names it too.
      ip("link add Ethernet1 netns " + router + " type veth peer name Ethernet2 netns " + host);
      ip("-n " + router + " addr add fd00:d::1/64 dev Ethernet1 nodad");
      ip("-n " + host + " addr add fd00:d::2/64 dev Ethernet2 nodad");
      ip("-n " + router + " link set Ethernet1 up");
      ip("-n " + host + " link set Ethernet2 up");
   }
   ~Lab() {
      (void)std::system(("ip netns del " + router + " 2>/dev/null").c_str());
      (void)std::system(("ip netns del " + host + " 2>/dev/null").c_str());
   }
};

Sys::Fd socketIn(const std::string& ns, int domain, int type, int protocol) {
   const Sys::Result r = Pakto::openSocket(Pakto::NamespaceName(ns), domain, type, protocol);
   if (!r.ok()) throw std::runtime_error("socket in " + ns + " failed");
   return Sys::Fd(int(r.value));
}

int indexOf(int fd, const char* name) {
   ifreq ifr{};
   std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", name);
   if (::ioctl(fd, SIOCGIFINDEX, &ifr) != 0) throw std::runtime_error(std::string("no interface ") + name);
   return ifr.ifr_ifindex;
}

} // namespace

void upcallDemo(std::ostream& out) {
   out << "\nKernel upcalls. Namespace " << "mcastfib-demo-r" << ::getpid()
       << " routes IPv6 multicast (an mroute socket, one\ninterface Ethernet1); a host namespace sends "
          "datagrams to groups it has no route for.\n";
   const Lab lab;
   // The routing side: what a multicast routing agent sets up.
   Sys::Fd mroute = socketIn(lab.router, AF_INET6, SOCK_RAW, IPPROTO_ICMPV6);
   const int one = 1;
   if (::setsockopt(mroute.get(), IPPROTO_IPV6, MRT6_INIT, &one, sizeof one) != 0)
      throw std::runtime_error("MRT6_INIT failed");
   mif6ctl mif{};
   mif.mif6c_mifi = 0;
   mif.mif6c_pifi = uint16_t(indexOf(mroute.get(), "Ethernet1"));
   if (::setsockopt(mroute.get(), IPPROTO_IPV6, MRT6_ADD_MIF, &mif, sizeof mif) != 0)
      throw std::runtime_error("MRT6_ADD_MIF failed");

   Loop::EpollLoop loop;
   Pakto::eventLoopIs(&loop);
   struct Unset {
      ~Unset() { Pakto::eventLoopIs(nullptr); }
   } unset;
   auto status = Routing::KernelMfib::statusFactory(L3::VrfName("default"));
   status->intfIdCollIs(0, Pakto::IntfId("Ethernet1"));
   auto manager = mrtNotifyPamManagerFactory(Pakto::ipv6(), Pakto::NamespaceName(lab.router));
   manager->pam()->optionsIs(uint32_t(MrtNotifySocketOptions::igmpNoCache));
   auto sm = mrtNotifySmFactory(manager, status);

   Sys::Fd sender = socketIn(lab.host, AF_INET6, SOCK_DGRAM, 0);
   const int out6 = indexOf(sender.get(), "Ethernet2");
   ::setsockopt(sender.get(), IPPROTO_IPV6, IPV6_MULTICAST_IF, &out6, sizeof out6);
   using Clock = std::chrono::steady_clock;
   std::vector<double> latencyUs;
   constexpr int kDatagrams = 200;
   for (int i = 0; i < kDatagrams; ++i) {
      sockaddr_in6 to{};
      to.sin6_family = AF_INET6;
      to.sin6_port = htons(5000);
      const std::string group = "ff0e::1:" + std::to_string(i + 1);
      ::inet_pton(AF_INET6, group.c_str(), &to.sin6_addr);
      const uint32_t before = manager->noCacheCounter();
      Clock::time_point sent = Clock::now();
      // The link's multicast route comes a moment after the link is up.
      for (int tries = 0; sent = Clock::now(), ::sendto(sender.get(), "upcall", 6, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 6;
           ++tries) {
         if (errno != ENETUNREACH || tries == 200)
            throw std::runtime_error(std::string("sending a datagram failed: ") + std::strerror(errno));
         ::usleep(10000);
      }
      loop.runUntil([&] { return manager->noCacheCounter() != before || receivedSignal(); }, 2);
      checkStop(out);
      if (manager->noCacheCounter() == before) throw std::runtime_error("no upcall came for " + group);
      latencyUs.push_back(std::chrono::duration<double, std::micro>(Clock::now() - sent).count());
      if (i < 3) {
         const auto& m = *manager->noCacheMessage();
         out << "  agent: no-cache upcall on " << m.intfId().name() << " for source " << m.source() << " group "
             << m.group() << "\n";
      }
   }
   std::sort(latencyUs.begin(), latencyUs.end());
   out << "  ... " << manager->noCacheCounter() << " upcalls in all, each counted once\n"
       << std::fixed << std::setprecision(1) << "  datagram sent to upcall parsed, " << kDatagrams
       << " datagrams: median " << latencyUs[latencyUs.size() / 2] << " us, 99th percentile "
       << latencyUs[latencyUs.size() * 99 / 100] << " us\n";
}

} // namespace Tool
