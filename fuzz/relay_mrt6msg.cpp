// The ICMPv6 relay's reader: one datagram of the kernel's IPv6 mroute
// socket, an mrt6msg record and, for a whole-packet upcall, the packet. The
// relay has no transmit side here: what it would send is the message it
// returns, checked like the manager's.
#include "fuzz/Harness.h"

#include "notify/MrtIcmpV6RelaySm.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   static const Gant::Ptr<Routing::Multicast::Notify::MrtIcmpV6RelaySm> relay = [] {
      auto r = Routing::Multicast::Notify::mrtIcmpV6RelaySmFactory(Pakto::NamespaceName(), Fuzz::status());
      r->wrongIfMessageIs();
      r->noCacheMessageIs();
      r->wholePktMessageIs();
      return r;
   }();
   const uint64_t before = relay->relayed();
   const Gant::Ptr<Pakto::MrtMessage> msg = relay->readMrtMessage(Fuzz::packet(data, size));
   if (relay->relayed() - before != (msg ? 1u : 0u)) std::abort();
   if (!msg) return 0;
   if (msg->source().af() != Pakto::ipv6() || msg->group().af() != Pakto::ipv6()) std::abort();
   Fuzz::readAll(msg->pkt());
   return 0;
}
