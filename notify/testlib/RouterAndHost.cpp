#include "notify/testlib/RouterAndHost.h"

#include "gant/Error.h"
#include "pakto/PamFdSm.h"
#include "pakto/Pkt.h"
#include "pakto/Socket.h"
#include "sys/Calls.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <linux/mroute.h>
#include <linux/mroute6.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace Routing::Multicast::Notify::Test {

namespace {

void run(const std::string& command) {
   if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

bool outputHas(const std::string& command, const std::string& needle) {
   FILE* p = ::popen(command.c_str(), "r");
   if (!p) return false;
   std::string out;
   char buf[512];
   while (std::size_t n = std::fread(buf, 1, sizeof buf, p)) out.append(buf, n);
   ::pclose(p);
   return out.find(needle) != std::string::npos;
}

Sys::Fd openIn(const Pakto::NamespaceName& ns, int domain, int type, int protocol) {
   const Sys::Result r = Pakto::openSocket(ns, domain, type, protocol);
   if (!r.ok()) throw std::runtime_error("socket in " + std::string(ns.str()) + ": " + std::strerror(r.err));
   return Sys::Fd(int(r.value));
}

template <class T>
void setOption(int sd, int level, int name, const T& value, const char* what) {
   if (::setsockopt(sd, level, name, &value, sizeof value) != 0)
      throw std::runtime_error(std::string("setsockopt ") + what + ": " + std::strerror(errno));
}

int ifIndex(const Pakto::NamespaceName& ns, const std::string& name) {
   Sys::Fd sd = openIn(ns, AF_INET, SOCK_DGRAM, 0);
   ifreq req{};
   std::strncpy(req.ifr_name, name.c_str(), IFNAMSIZ - 1);
   if (::ioctl(sd.get(), SIOCGIFINDEX, &req) != 0) throw std::runtime_error("no interface " + name);
   return req.ifr_ifindex;
}

// A run that crashed could not remove its namespaces: those of processes
// that are gone are removed by the next run.
void removeOrphans() {
   std::vector<std::string> names;
   try {
      names = Sys::directoryNames(Pakto::netnsDir);
   } catch (const Gant::ErrnoError&) {
      return; // no namespace was ever named
   }
   for (const std::string& name : names) {
      unsigned pid = 0;
      char role[32];
      if (std::sscanf(name.c_str(), "mcastfib-%u-%*u-%31s", &pid, role) == 2 && ::kill(pid_t(pid), 0) != 0 &&
          errno == ESRCH)
         (void)std::system(("ip netns del " + name).c_str());
   }
}
} // namespace

Netns::Netns(const char* role) {
   static int made = 0;
   if (made == 0) removeOrphans();
   name_ = "mcastfib-" + std::to_string(::getpid()) + "-" + std::to_string(made++) + "-" + role;
   run("ip netns add " + name_);
}

Netns::~Netns() {
   // Sockets still open keep the namespace alive; its name goes now.
   if (std::system(("ip netns del " + name_).c_str()) != 0) std::fprintf(stderr, "could not remove %s\n", name_.c_str());
}

RouterAndHost::RouterAndHost() : router_("router"), host_("host") {
   const std::string r(router().str()), h(host().str());
   // The router's end of pair p is 10.0.p.1 and 2001:db8:p::1, the host's .2 and ::2.
   const auto bringUp = [](const std::string& ns, const std::string& intf, int pair, int end) {
      const std::string p = std::to_string(pair), e = std::to_string(end);
      run("ip -n " + ns + " addr add 10.0." + p + "." + e + "/24 dev " + intf);
      run("ip -n " + ns + " addr add 2001:db8:" + p + "::" + e + "/64 dev " + intf + " nodad");
      run("ip -n " + ns + " link set " + intf + " up");
   };
   // The kernel finishes bringing a veth up later, once it sees the
   // carrier, and only then routes IPv6 multicast out of it.
   const auto waitUp = [](const std::string& ns, const std::string& intf) {
      for (int tries = 0; !outputHas("ip -n " + ns + " -6 route show table local dev " + intf, "ff00::/8"); ++tries) {
         if (tries == 1000) throw std::runtime_error(intf + " in " + ns + " never came up");
         ::usleep(10000);
      }
   };
   for (int i = 0; i < pairs; ++i) {
      const std::string rIf = "r" + std::to_string(i), hIf = "h" + std::to_string(i);
      // Made inside the router, so that no name is taken in the caller's
      // namespace, not even for a moment.
      run("ip -n " + r + " link add " + rIf + " type veth peer name " + hIf + " netns " + h);
      bringUp(r, rIf, i, 1);
      bringUp(h, hIf, i, 2);
      routerIf_[i] = ifIndex(router(), rIf);
      hostIf_[i] = ifIndex(host(), hIf);
   }
   for (int i = 0; i < pairs; ++i) {
      waitUp(r, "r" + std::to_string(i));
      waitUp(h, "h" + std::to_string(i));
   }
}

std::string RouterAndHost::hostAddress(int family, int pair) {
   return family == AF_INET ? "10.0." + std::to_string(pair) + ".2" : "2001:db8:" + std::to_string(pair) + "::2";
}

Sys::Fd RouterAndHost::mroute6(bool assert) const {
   Sys::Fd sd = openIn(router(), AF_INET6, SOCK_RAW, IPPROTO_ICMPV6);
   icmp6_filter none;
   ICMP6_FILTER_SETBLOCKALL(&none);
   setOption(sd.get(), IPPROTO_ICMPV6, ICMP6_FILTER, none, "ICMP6_FILTER");
   setOption(sd.get(), IPPROTO_IPV6, MRT6_INIT, 1, "MRT6_INIT");
   for (int i = 0; i < pairs; ++i) {
      mif6ctl mif{};
      mif.mif6c_mifi = mifi_t(i);
      mif.mif6c_pifi = uint16_t(routerIf_[i]);
      setOption(sd.get(), IPPROTO_IPV6, MRT6_ADD_MIF, mif, "MRT6_ADD_MIF");
   }
   if (assert) setOption(sd.get(), IPPROTO_IPV6, MRT6_ASSERT, 1, "MRT6_ASSERT");
   return sd;
}

void RouterAndHost::registerWhole6(int mrouteSd, int pair, const std::string& group) const {
   setOption(mrouteSd, IPPROTO_IPV6, MRT6_PIM, 1, "MRT6_PIM");
   mif6ctl reg{};
   reg.mif6c_mifi = mifi_t(pairs);
   reg.mif6c_flags = MIFF_REGISTER;
   reg.vifc_threshold = 1;
   // Already there from an earlier call: fine.
   (void)::setsockopt(mrouteSd, IPPROTO_IPV6, MRT6_ADD_MIF, &reg, sizeof reg);
   mf6cctl entry{};
   entry.mf6cc_origin.sin6_family = entry.mf6cc_mcastgrp.sin6_family = AF_INET6;
   inet_pton(AF_INET6, hostAddress(AF_INET6, pair).c_str(), &entry.mf6cc_origin.sin6_addr);
   inet_pton(AF_INET6, group.c_str(), &entry.mf6cc_mcastgrp.sin6_addr);
   entry.mf6cc_parent = mifi_t(pair);
   IF_SET(pairs, &entry.mf6cc_ifset);
   setOption(mrouteSd, IPPROTO_IPV6, MRT6_ADD_MFC, entry, "MRT6_ADD_MFC");
}

Sys::Fd RouterAndHost::mroute4(bool assert) const {
   Sys::Fd sd = openIn(router(), AF_INET, SOCK_RAW, IPPROTO_IGMP);
   setOption(sd.get(), IPPROTO_IP, MRT_INIT, 1, "MRT_INIT");
   for (int i = 0; i < pairs; ++i) {
      vifctl vif{};
      vif.vifc_vifi = vifi_t(i);
      vif.vifc_flags = VIFF_USE_IFINDEX;
      vif.vifc_threshold = 1;
      vif.vifc_lcl_ifindex = routerIf_[i];
      setOption(sd.get(), IPPROTO_IP, MRT_ADD_VIF, vif, "MRT_ADD_VIF");
   }
   if (assert) setOption(sd.get(), IPPROTO_IP, MRT_ASSERT, 1, "MRT_ASSERT");
   return sd;
}

void RouterAndHost::sendUdp(int family, int pair, const std::string& group, int mrouteSd) const {
   const std::string source = hostAddress(family, pair);
   const int other = (pair + 1) % pairs;
   Sys::Fd sd = openIn(host(), family, SOCK_DGRAM, 0);
   const char payload[] = "upcall";
   if (family == AF_INET6) {
      sockaddr_in6 from{}, to{};
      from.sin6_family = to.sin6_family = AF_INET6;
      inet_pton(AF_INET6, source.c_str(), &from.sin6_addr);
      inet_pton(AF_INET6, group.c_str(), &to.sin6_addr);
      to.sin6_port = htons(5000);
      if (mrouteSd >= 0) {
         mf6cctl entry{};
         entry.mf6cc_origin = from;
         entry.mf6cc_mcastgrp = to;
         entry.mf6cc_parent = mifi_t(other);
         IF_SET(pair, &entry.mf6cc_ifset);
         (void)::setsockopt(mrouteSd, IPPROTO_IPV6, MRT6_DEL_MFC, &entry, sizeof entry);
         setOption(mrouteSd, IPPROTO_IPV6, MRT6_ADD_MFC, entry, "MRT6_ADD_MFC");
      }
      if (::bind(sd.get(), reinterpret_cast<sockaddr*>(&from), sizeof from) != 0)
         throw std::runtime_error("bind " + source);
      setOption(sd.get(), IPPROTO_IPV6, IPV6_MULTICAST_IF, hostIf_[pair], "IPV6_MULTICAST_IF");
      setOption(sd.get(), IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 8, "IPV6_MULTICAST_HOPS");
      if (::sendto(sd.get(), payload, sizeof payload, 0, reinterpret_cast<sockaddr*>(&to), sizeof to) < 0)
         throw std::runtime_error("sendto " + group + ": " + std::strerror(errno));
   } else {
      sockaddr_in from{}, to{};
      from.sin_family = to.sin_family = AF_INET;
      inet_pton(AF_INET, source.c_str(), &from.sin_addr);
      inet_pton(AF_INET, group.c_str(), &to.sin_addr);
      to.sin_port = htons(5000);
      if (mrouteSd >= 0) {
         mfcctl entry{};
         entry.mfcc_origin = from.sin_addr;
         entry.mfcc_mcastgrp = to.sin_addr;
         entry.mfcc_parent = vifi_t(other);
         entry.mfcc_ttls[pair] = 1;
         for (int i = 0; i < MAXVIFS; ++i)
            if (i != pair) entry.mfcc_ttls[i] = 255;
         (void)::setsockopt(mrouteSd, IPPROTO_IP, MRT_DEL_MFC, &entry, sizeof entry);
         setOption(mrouteSd, IPPROTO_IP, MRT_ADD_MFC, entry, "MRT_ADD_MFC");
      }
      if (::bind(sd.get(), reinterpret_cast<sockaddr*>(&from), sizeof from) != 0)
         throw std::runtime_error("bind " + source);
      ip_mreqn via{};
      via.imr_ifindex = hostIf_[pair];
      setOption(sd.get(), IPPROTO_IP, IP_MULTICAST_IF, via, "IP_MULTICAST_IF");
      setOption(sd.get(), IPPROTO_IP, IP_MULTICAST_TTL, 8, "IP_MULTICAST_TTL");
      if (::sendto(sd.get(), payload, sizeof payload, 0, reinterpret_cast<sockaddr*>(&to), sizeof to) < 0)
         throw std::runtime_error("sendto " + group + ": " + std::strerror(errno));
   }
}

PamLoop::PamLoop() : pktSize(Pakto::globalPktManager().pktSize()) { Pakto::eventLoopIs(&loop); }

PamLoop::~PamLoop() {
   Pakto::eventLoopIs(nullptr);
   Pakto::globalPktManager().pktSizeIs(pktSize);
}

} // namespace Routing::Multicast::Notify::Test
