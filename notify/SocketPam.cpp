// The raw socket that receives the kernel's multicast-routing upcalls. For
// IPv4 the pam opens the socket and asks the kernel for each upcall kind
// with the notification options; for IPv6 it reads an mroute socket that its
// owner handed in. Every system call goes through the seam.
#include "notify/SocketPam.h"

#include "notify/SocketPamTrace.h"
#include "notify/Upcall.h"
#include "pakto/ControlMessages.h"
#include "pakto/Socket.h"
#include "sys/Calls.h"

#include <netinet/in.h>

#include <cstdlib>
#include <cstring>

namespace Routing::Multicast::Notify {

namespace {

// The kernel's notification options (level IPPROTO_IP, 4-byte value).
constexpr int mrtNotifyInit = 211, mrtNotifyAdd = 213, mrtNotifyDel = 214;

// The upcall kinds in the order the kernel is asked for them.
struct Kind {
   uint32_t bit;
   int type; // the upcall's type value, the option's argument
   const char* traceText;
   const char* addError;    // asking for it when the socket opens
   const char* changeError; // turning it on or off later
};
constexpr Kind kinds[] = {
    {0x1, 2, "Set socket option: wrongvif", "setsocketopt(MRT_NOTIFY_ADD), WRONGVIF", "setsockopt(IGMP_WRONGVIF)"},
    {0x2, 1, "Set socket option: nocache", "setsocketopt(MRT_NOTIFY_ADD), NOCACHE", "setsockopt(IGMP_NOCACHE)"},
    {0x4, 3, "Set socket option: wholepkt", "setsocketopt(MRT_NOTIFY_ADD), WHOLEPKT", "setsockopt(IGMP_WHOLEPKT)"},
};

Sys::Result setIpOption(int sd, int option, int value) {
   return Sys::calls().setsockopt(sd, IPPROTO_IP, option, &value, sizeof value);
}

// Closes what was opened and raises the failure with its errno.
[[noreturn]] void closeAndRaise(int sd, const char* what, int err) {
   Sys::discard(Sys::calls().close(sd));
   throw Gant::ErrnoError(what, err);
}

// Control room for the messages read, as the platform lays them out (24
// bytes for IPv4 and 64 for IPv6 on 32-bit x86).
constexpr std::size_t controlBytes4 = CMSG_SPACE(sizeof(in_pktinfo));
constexpr std::size_t controlBytes6 =
    CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(int)) + CMSG_SPACE(sizeof(int));

using Upcall::load;

Pakto::IpGenAddr address4(const in_addr* a) {
   return Pakto::IpGenAddr(Pakto::ipv4(), std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(a), 4));
}
Pakto::IpGenAddr address6(const in6_addr* a) {
   return Pakto::IpGenAddr(Pakto::ipv6(), std::span<const uint8_t>(a->s6_addr, 16));
}

} // namespace

void MrtNotifySocketPam::enabledIs(bool enabled) {
   FLASHLOG(pamTrace, 9, "void MrtNotifySocketPam::enabledIs(bool) ", enabled, " NS:", netNs());
   if (enabled == this->enabled()) return enabledStore(enabled);
   if (!enabled) {
      if (af() == Pakto::ipv4()) {
         GANT_ASSERT(fileDesc());
         // The loop lets go of the descriptor before its number can be reused.
         fdSmIs(nullptr);
         Sys::discard(Sys::calls().close(sd()));
         fileDesc()->descriptorIs(-1);
         fileDescDel();
         sdIs(-1);
      } else if (af() == Pakto::ipv6()) {
         // The mroute socket belongs to whoever handed it in.
         fdSmIs(nullptr);
      } else {
         GANT_ASSERT(0 && "Unsupported Address Family");
      }
      FLASHLOG(pamTrace, 5, "Mrt pam is disabled");
      return enabledStore(false);
   }
   if (af() == Pakto::ipv4()) {
      const Sys::Result opened = Pakto::openSocket(netNs(), AF_INET, SOCK_RAW, IPPROTO_RAW);
      if (!opened.ok()) {
         FLASHLOG(pamTrace, 2, "socket open error");
         throw Gant::ErrnoError("socket", opened.err);
      }
      const int sd = int(opened.value);
      if (Sys::Result r = setIpOption(sd, mrtNotifyInit, 1); !r.ok())
         closeAndRaise(sd, "setsocketopt(MRT_NOTIFY_INIT)", r.err);
      for (const Kind& kind : kinds) {
         if (!(options() & kind.bit)) continue;
         FLASHLOG(pamTrace, 5, kind.traceText);
         if (Sys::Result r = setIpOption(sd, mrtNotifyAdd, kind.type); !r.ok())
            closeAndRaise(sd, kind.addError, r.err);
      }
      sdIs(sd);
   } else if (af() == Pakto::ipv6()) {
      if (!std::getenv("MCAST_NO_NETLINK")) {
         FLASHLOG(pamTrace, 3, "void MrtNotifySocketPam::enabledIs(bool)",
                  " Environment supports native netlink notifications. Ignoring");
         sdIs(-1);
         return;
      }
      GANT_ASSERT(sd_ && "MrtNotifyPam for IPV6 currently " "supports setup only with file descriptors set");
   } else {
      GANT_ASSERT(0 && "Unsupported Address Family");
   }
   startReading();
}

void MrtNotifySocketPam::startReading() {
   fileDescNew(name());
   fileDesc()->descriptorIs(sd());
   if (!fileDesc()->nonBlockingIs(true)) FLASHLOG(pamTrace, 2, name(), ": could not make the socket non-blocking");
   fdSmIs(Gant::make<Pakto::PamFdSm>(*this, sd()));
   FLASHLOG(pamTrace, 5, "Mrt pam is enabled");
   enabledStore(true);
}

void MrtNotifySocketPam::optionsIs(uint32_t options) {
   FLASHLOG(pamTrace, 9, "void MrtNotifySocketPam::optionsIs(U32) 0x", Hex{options}, " NS:", netNs());
   if (!enabled()) return optionsStore(options);
   const uint32_t old = this->options(), changed = old ^ options;
   FLASHLOG(pamTrace, 7, "oldOptions=0x", Hex{old}, " newOptions=0x", Hex{options});
   FLASHLOG(pamTrace, 7, "changedOptions=0x", Hex{changed});
   if (!changed) return;
   if (af() == Pakto::ipv4()) {
      for (const Kind& kind : kinds) {
         if (!(changed & kind.bit)) continue;
         const int option = (old & kind.bit) ? mrtNotifyDel : mrtNotifyAdd;
         if (Sys::Result r = setIpOption(sd(), option, kind.type); !r.ok())
            throw Gant::ErrnoError(kind.changeError, r.err);
      }
   } else if (af() != Pakto::ipv6()) {
      GANT_ASSERT(0 && "Unsupported Address Family");
   }
   optionsStore(options);
}

void MrtNotifySocketPam::netNsIs(const Pakto::NamespaceName& netNs) {
   FLASHLOG(pamTrace, 9, "void MrtNotifySocketPam::netNsIs(Pakto::NamespaceName) ", netNs, " NS:", this->netNs());
   if (netNs == this->netNs()) return;
   netNsStore(netNs);
   handleNetNs();
}

void MrtNotifySocketPam::handleNetNs() {
   FLASHLOG(pamTrace, 9, "void MrtNotifySocketPam::handleNetNs() NS:", netNs());
   if (!enabled()) return;
   enabledIs(false);
   enabledIs(true);
}

void MrtNotifySocketPam::handleCleanup() {
   FLASHLOG(pamTrace, 9, "void MrtNotifySocketPam::handleCleanup() NS:", netNs());
   if (!enabled()) return;
   GANT_ASSERT(fileDesc());
   fdSmIs(nullptr);
   Sys::discard(Sys::calls().close(fileDesc()->descriptor()));
}

void MrtNotifySocketPam::fileDescIs(const Gant::Name& name) {
   FLASHLOG(pamTrace, 9, "void MrtNotifySocketPam::fileDescIs(Gant::Name) ", name, " NS:", netNs());
   if (!fileDesc() || fileDesc()->name() != name) fileDescNew(name);
}

void MrtNotifySocketPam::fileDescNew(const Gant::Name& name) {
   FLASHLOG(pamTrace, 9, "void MrtNotifySocketPam::fileDescNew(Gant::Name) ", name, " NS:", netNs());
   fileDescIs(Gant::make<Pakto::FileDesc>(name));
}

void MrtNotifySocketPam::fileDescDel() {
   FLASHLOG(pamTrace, 9, "void MrtNotifySocketPam::fileDescDel() NS:", netNs());
   fileDescIs(Gant::Ptr<Pakto::FileDesc>());
}

void MrtNotifySocketPam::doGetRxPkt() {
   FLASHLOG(pamTrace, 9, "void MrtNotifySocketPam::doGetRxPkt() NS:", netNs());
   if (!enabled()) {
      FLASHLOG(pamTrace, 5, "IpSocketPam not enabled. Aborting action");
      return;
   }
   const Gant::Ptr<Pakto::Pkt> pkt = rxBuffer();
   if (!pkt) return;

   const bool v4 = af() == Pakto::ipv4();
   iovec iov{pkt->data(), pkt->size()};
   sockaddr_in6 from{}; // room for either family's address
   alignas(cmsghdr) uint8_t control[controlBytes6 > controlBytes4 ? controlBytes6 : controlBytes4];
   msghdr msg{};
   msg.msg_name = &from;
   msg.msg_namelen = v4 ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   msg.msg_control = control;
   msg.msg_controllen = v4 ? controlBytes4 : controlBytes6;
   const Sys::Result got = Sys::calls().recvmsg(sd(), &msg, rxFlags());
   if (rxFailed(got)) return;
   const std::size_t length = std::size_t(got.value);
   FLASHLOG(pamTrace, 9, "Received packet of size ", length);
   if (v4) {
      rxSrcIpAddrIs(address4(&reinterpret_cast<const sockaddr_in*>(&from)->sin_addr));
   } else {
      rxSrcIpAddrIs(address6(&from.sin6_addr));
      FLASHLOG(pamTrace, 9, "Source IP address is ", rxSrcIpAddr());
   }
   readControl(control, std::min<std::size_t>(msg.msg_controllen, sizeof control));
   rxPktCountInc(1);
   if (length == 0) {
      FLASHLOG(pamTrace, 5, name(), ": ", "Discarding empty packet");
      return;
   }
   if (!v4) {
      // The kernel's upcall record starts with a byte that is always zero.
      if (pkt->data()[0] != 0) {
         FLASHLOG(pamTrace, 5, name(), ": ", "Discarding non-mrt6msg packet");
         return;
      }
      rxMrt6msgCountInc(1);
   }
   pkt->trimTail(length);
   rxPktIs(pkt);
}

Gant::Ptr<Pakto::Pkt> MrtNotifySocketPam::rxBuffer() {
   Gant::Ptr<Pakto::Pkt> pkt = Pakto::globalPktManager().newPkt();
   if (!pkt) {
      FLASHLOG(pamTrace, 2, "Failed to obtain new packet object");
      return nullptr;
   }
   const std::size_t maxSize = pkt->maxSize();
   FLASHLOG(pamTrace, 9, "maxSize=", maxSize, ", maxRxPktData=", maxRxPktData());
   GANT_ASSERT(maxSize >= maxRxPktData());
   pkt->reserve(maxRxPktData());
   return pkt;
}

bool MrtNotifySocketPam::rxFailed(const Sys::Result& got) const {
   if (got.ok()) return false;
   // A spurious readable event ends in EAGAIN on the non-blocking socket.
   if (got.err != EAGAIN)
      FLASHLOG(pamTrace, 2, name(), ": ", "recvmsg failed with ", got.err, " (", std::strerror(got.err), ") ");
   return true;
}

void MrtNotifySocketPam::readControl(const uint8_t* control, std::size_t bytes) {
   const bool v4 = af() == Pakto::ipv4();
   const int ownLevel = v4 ? IPPROTO_IP : IPPROTO_IPV6;
   bool pktInfo = false;
   const auto arrived = [&](uint32_t ifIndex, const Pakto::IpGenAddr& dst) {
      rxIfIndexIs(ifIndex);
      rxDstIpAddrIs(dst);
      pktInfo = true;
      FLASHLOG(pamTrace, 9, "Packet arrived on interface index ", rxIfIndex(), " with destination IP of ",
               rxDstIpAddr());
   };
   Pakto::forEachControlMessage(control, bytes, [&](int level, int type, const uint8_t* data, std::size_t dataBytes) {
      if (level != ownLevel) return true;
      if (v4 && type == IP_PKTINFO && dataBytes >= sizeof(in_pktinfo)) {
         const in_pktinfo info = load<in_pktinfo>(data);
         arrived(uint32_t(info.ipi_ifindex), address4(&info.ipi_addr));
      } else if (!v4 && type == IPV6_PKTINFO && dataBytes >= sizeof(in6_pktinfo)) {
         const in6_pktinfo info = load<in6_pktinfo>(data);
         arrived(uint32_t(info.ipi6_ifindex), address6(&info.ipi6_addr));
      } else if (v4 && type == IP_ORIGDSTADDR && dataBytes >= sizeof(sockaddr_in)) {
         const sockaddr_in orig = load<sockaddr_in>(data);
         rxOrigDstIpAddrIs(address4(&orig.sin_addr));
         FLASHLOG(pamTrace, 9, "Original destination IP is ", rxOrigDstIpAddr());
      } else if (v4 && type == IP_TOS && dataBytes >= 1) {
         rxTOSIs(data[0]);
         FLASHLOG(pamTrace, 9, "TOS of received packet is 0x", Hex{rxTOS()});
      } else if (!v4 && type == IPV6_TCLASS && dataBytes >= sizeof(int)) {
         rxTOSIs(uint8_t(load<int>(data)));
         FLASHLOG(pamTrace, 9, "TOS of received packet is 0x", Hex{rxTOS()});
      } else if (((v4 && type == IP_TTL) || (!v4 && type == IPV6_HOPLIMIT)) && dataBytes >= sizeof(int)) {
         rxTTLIs(uint8_t(load<int>(data)));
         FLASHLOG(pamTrace, 9, "TTL of received packet is 0x", Hex{rxTTL()});
      }
      return true;
   });
   if (!pktInfo) FLASHLOG(pamTrace, 7, "recvmsg failed to retrieve ifindex");
}

} // namespace Routing::Multicast::Notify
