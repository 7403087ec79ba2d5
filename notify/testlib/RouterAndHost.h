#pragma once
// Two network namespaces for the upcall tests, a router and a host, joined
// by two veth pairs. Pair i is its own subnet (10.0.i.0/24, 2001:db8:i::/64;
// the router is .1 / ::1, the host .2 / ::2), so that a datagram the host
// sends out of pair i arrives on the router's interface of pair i, which the
// mroute sockets below make mif / vif i. Both namespaces are removed with
// the object, whatever the test did.
#include "loop/EpollLoop.h"
#include "platform/NamespaceName.h"
#include "sys/Fd.h"

#include <sys/socket.h>

#include <string>

namespace Routing::Multicast::Notify::Test {

// One named network namespace, removed on destruction.
class Netns {
 public:
   // A name no other test or run uses, ending in `role`. Throws
   // std::runtime_error when `ip netns add` fails.
   explicit Netns(const char* role);
   ~Netns();
   Netns(const Netns&) = delete;
   Netns& operator=(const Netns&) = delete;
   Pakto::NamespaceName name() const { return Pakto::NamespaceName(name_); }

 private:
   std::string name_;
};

class RouterAndHost {
 public:
   static constexpr int pairs = 2;
   // Throws std::runtime_error naming the step that failed.
   RouterAndHost();

   Pakto::NamespaceName router() const { return router_.name(); }
   Pakto::NamespaceName host() const { return host_.name(); }
   int routerIfIndex(int pair) const { return routerIf_[pair]; }
   int hostIfIndex(int pair) const { return hostIf_[pair]; }
   // "10.0.<pair>.2" or "2001:db8:<pair>::2" (family AF_INET or AF_INET6).
   static std::string hostAddress(int family, int pair);

   // A stock IPv6 mroute socket in the router: raw ICMPv6, MRT6_INIT, mif i
   // for pair i, MRT6_ASSERT when asked. Its ICMPv6 filter blocks every
   // type, so that only upcalls, which the filter never sees, are read from
   // it (the host's MLD reports would otherwise come and go as they like).
   Sys::Fd mroute6(bool assert = false) const;
   // Makes the IPv6 mroute socket's kernel hand whole packets up: PIM on, a
   // register mif (number `pairs`) and the entry (host address of `pair`,
   // group) forwarding from that pair's mif to it, so that each datagram
   // sent to the group becomes a whole-packet upcall.
   void registerWhole6(int mrouteSd, int pair, const std::string& group) const;
   // A stock IPv4 mroute socket in the router: raw IGMP, MRT_INIT, vif i for
   // pair i by interface index, MRT_ASSERT when asked.
   Sys::Fd mroute4(bool assert = false) const;

   // One UDP datagram from the host's address of `pair`, out of its veth, to
   // `group` (family AF_INET or AF_INET6). Given the router's mroute socket
   // of that family, the entry (host address, group) is first made afresh
   // with the other pair as incoming interface and this one as outgoing, so
   // that the datagram arrives on the wrong interface; a fresh entry has no
   // recent assert, so the kernel reports it at once.
   void sendUdp(int family, int pair, const std::string& group, int mrouteSd = -1) const;

 private:
   Netns router_;
   Netns host_;
   int routerIf_[pairs] = {};
   int hostIf_[pairs] = {};
};

// The event loop that pams watch their sockets on, for one test; the
// process's packet size is put back as it was (a review raises it).
struct PamLoop {
   PamLoop();
   ~PamLoop();
   Loop::EpollLoop loop;
   std::size_t pktSize;
};

} // namespace Routing::Multicast::Notify::Test
