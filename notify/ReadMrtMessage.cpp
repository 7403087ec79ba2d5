// The upcall manager's parsing: a received packet to one of its three
// messages. Everything here reads bytes from the kernel; lengths are checked
// before every read, so a short or damaged packet ends the parse with what
// was gathered and never reads past the buffer.
#include "notify/Notify.h"
#include "notify/SocketPamTrace.h"
#include "notify/Upcall.h"

#include "flashlog/Flashlog.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstring>
#include <ostream>

namespace Routing::Multicast::Notify {

namespace {

using namespace Upcall;

Flashlog::Handle& trace = Flashlog::handle("Mroute::MrtNotify");
// One line per upcall, which can stay on when the detailed trace is off.
Flashlog::Handle& fastTrace = Flashlog::handle("Mroute::MrtNotify::Upcalls");

Pakto::IpGenAddr address(Pakto::AddressFamily af, const uint8_t* p) {
   return Pakto::IpGenAddr(af, std::span<const uint8_t>(p, Pakto::addressBytes(af)));
}

Pakto::IntfId intfOf(const Gant::Ptr<const KernelMfib::Status>& status, uint16_t index) {
   return status ? status->intfIdColl(index) : Pakto::IntfId();
}

// A message chosen for an upcall starts clean: it is refilled for every one.
void clear(Pakto::MrtMessage& m) {
   m.sourceIs(Pakto::IpGenAddr());
   m.groupIs(Pakto::IpGenAddr());
   m.intfIdIs(Pakto::IntfId());
   m.vifIs(0);
   m.pktIs(nullptr);
}

// A copy of bytes in a packet of the process's manager when it fits (reused,
// so a flow of whole packets allocates nothing once warm), else its own.
Gant::Ptr<Pakto::Pkt> copyPacket(const uint8_t* bytes, std::size_t n) {
   Pakto::PktManager& manager = Pakto::globalPktManager();
   Gant::Ptr<Pakto::Pkt> p = n <= manager.pktSize() ? manager.newPkt() : nullptr;
   if (!p) p = Gant::Ptr<Pakto::Pkt>(new Pakto::Pkt(n));
   p->assign(bytes, n);
   return p;
}

// One cache report: msg points at its netlink header, len (its nlmsg_len)
// is known to lie within the received bytes.
Gant::Ptr<Pakto::MrtMessage> readNetlinkMrtMessage(Pakto::AddressFamily af, const uint8_t* msg, std::size_t len,
                                                   const Gant::Ptr<WrongVifMessage>& wrongVifMessage,
                                                   const Gant::Ptr<NoCacheMessage>& noCacheMessage,
                                                   const Gant::Ptr<WholePktMessage>& wholePktMessage,
                                                   const Gant::Ptr<const KernelMfib::Status>& status) {
   if (len < nlmsghdrBytes + rtgenmsgBytes) return nullptr;
   struct rtgenmsg header;
   std::memcpy(&header, msg + nlmsghdrBytes, sizeof header);
   const struct rtgenmsg* rtgenmsg = &header;
   GANT_ASSERT(rtgenmsg->rtgen_family == 129 || rtgenmsg->rtgen_family == 128);

   uint32_t index = ~0u;
   const uint8_t* packet = nullptr;
   std::size_t packetLen = 0;
   Gant::Ptr<Pakto::MrtMessage> mrtMsg;
   Pakto::IpGenAddr source, group;
   Pakto::IntfId intf;
   const std::size_t width = Pakto::addressBytes(af);
   const uint8_t* at = msg + nlmsghdrBytes + rtgenmsgBytes;
   std::size_t left = len - nlmsghdrBytes - rtgenmsgBytes;
   while (left >= 4) {
      const uint16_t nlaLen = load<uint16_t>(at), nlaType = load<uint16_t>(at + 2);
      if (nlaLen < 4 || nlaLen > left) break;
      const uint8_t* payload = at + 4;
      const std::size_t bytes = nlaLen - 4u;
      // Either numbering, for either family.
      const uint16_t type = nlaType > Attr::intfId ? uint16_t(nlaType - ipv4AttrOffset) : nlaType;
      // An attribute shorter than its type needs is skipped, never read past.
      switch (nlaType > Attr::intfId + ipv4AttrOffset ? uint16_t(0xFFFF) : type) {
      case unnamed: break;
      case msgType:
         if (bytes < 1) break;
         switch (payload[0]) {
         case 2:
            FLASHLOG(trace, 8, "WrongVifMessage");
            mrtMsg = wrongVifMessage;
            break;
         case 3:
            FLASHLOG(trace, 8, "WholePktMessage");
            mrtMsg = wholePktMessage;
            break;
         case 1:
            FLASHLOG(trace, 8, "NoCacheMessage");
            mrtMsg = noCacheMessage;
            break;
         default: FLASHLOG(trace, 3, "Unexpected MSGTYPE attribute: ", char(payload[0]));
         }
         break;
      case mifId:
         if (bytes < 4) break;
         index = load<uint32_t>(payload);
         FLASHLOG(trace, 8, "MIF_ID: ", index);
         break;
      case srcAddr:
      case dstAddr:
         if (af != Pakto::ipv4() && af != Pakto::ipv6()) GANT_ASSERT(0 && "Address family unknown");
         if (bytes < width) break;
         (type == srcAddr ? source : group) = address(af, payload);
         FLASHLOG(trace, 8, type == srcAddr ? "SRC_ADDR: " : "DST_ADDR: ", address(af, payload));
         break;
      case pkt:
         packet = payload;
         packetLen = bytes;
         FLASHLOG(trace, 8, "RcvdPkt len: ", packetLen);
         break;
      case Attr::intfId:
         if (bytes < 8) break;
         try {
            // Two 32-bit words, high first, as the id is laid out.
            intf = Pakto::IntfId::fromValue(uint64_t(load<uint32_t>(payload)) << 32 | load<uint32_t>(payload + 4));
            FLASHLOG(trace, 8, "IntfId: ", intf);
         } catch (const Gant::RangeError&) {
            FLASHLOG(trace, 3, "IntfId attribute does not decode: ignored");
         }
         break;
      default: FLASHLOG(trace, 3, "Unexpected Netlink attribute type: ", nlaType);
      }
      const std::size_t step = align4(nlaLen);
      if (step >= left) break;
      at += step;
      left -= step;
   }
   if (!mrtMsg) return nullptr;
   clear(*mrtMsg);
   mrtMsg->vifIs(uint16_t(index));
   mrtMsg->intfIdIs(!intf ? intfOf(status, uint16_t(index)) : intf);
   if (mrtMsg == wholePktMessage && packet) {
      // The packet's own header names the flow, whatever the attributes say.
      mrtMsg->pktIs(copyPacket(packet, packetLen));
      const std::size_t srcAt = af == Pakto::ipv4() ? 12 : af == Pakto::ipv6() ? 8 : 0;
      if (!srcAt) GANT_ASSERT(0 && "Address family unknown");
      const std::size_t dstAt = af == Pakto::ipv4() ? 16 : 24;
      if (packetLen >= dstAt + width) {
         source = address(af, packet + srcAt);
         group = address(af, packet + dstAt);
      }
   } else {
      GANT_ASSERT(mrtMsg->intfId() != Pakto::IntfId());
   }
   mrtMsg->sourceIs(source);
   mrtMsg->groupIs(group);
   return mrtMsg;
}

} // namespace

Gant::Ptr<Pakto::MrtMessage> MrtNotifyPamManager::readMrtMessage(
    const Gant::Ptr<Pakto::Pkt>& pkt, const Gant::Ptr<const KernelMfib::Status>& status) {
   if (!pkt) return nullptr;
   const uint8_t* data = pkt->data();
   const std::size_t size = pkt->size();
   Gant::Ptr<Pakto::MrtMessage> mrtMsg;
   const bool raw = af() == Pakto::ipv4() && !useNetlink();
   if (raw) {
      if (size >= igmpmsgBytes) {
         FLASHLOG(trace, 9, "ipproto: ", unsigned(data[igmpmsgMbz]));
         // Low byte, then the high byte the kernel added for vifs past 255.
         const uint16_t vif = uint16_t(data[igmpmsgVif] | data[igmpmsgVif + 1] << 8);
         const Pakto::IntfId intf = intfOf(status, vif);
         const std::size_t headerBytes = std::size_t(data[0] & 0x0F) * 4;
         FLASHLOG(trace, 9, "igmpmsg type: ", unsigned(data[igmpmsgType]));
         FLASHLOG(trace, 9, "Headerbytes: ", headerBytes);
         const Pakto::IpGenAddr source = address(Pakto::ipv4(), data + igmpmsgSrc);
         const Pakto::IpGenAddr group = address(Pakto::ipv4(), data + igmpmsgDst);
         FLASHLOG(trace, 9, "sAddr: ", source, " gAddr: ", group, " vif ", vif);
         switch (data[igmpmsgType]) {
         case 1: mrtMsg = noCacheMessage(); break;
         case 2: mrtMsg = wrongVifMessage(); break;
         case 3: mrtMsg = wholePktMessage(); break;
         default: break;
         }
         if (mrtMsg) {
            clear(*mrtMsg);
            mrtMsg->vifIs(vif);
            mrtMsg->intfIdIs(intf);
            mrtMsg->sourceIs(source);
            mrtMsg->groupIs(group);
         }
         // A whole packet follows its record: it must hold an IPv4 header.
         if (mrtMsg && mrtMsg->type() == Pakto::MrtMessageType::WholePkt &&
             (headerBytes < igmpmsgBytes || size < headerBytes + igmpmsgBytes || size < 40))
            mrtMsg = nullptr;
      }
   } else if (af() == Pakto::ipv4() || af() == Pakto::ipv6()) {
      if (size >= nlmsghdrBytes) {
         const uint32_t firstLen = load<uint32_t>(data);
         if (firstLen >= nlmsghdrBytes && firstLen <= size) {
            std::size_t at = 0;
            for (unsigned n = 0; size - at >= nlmsghdrBytes; ++n) {
               const uint32_t len = load<uint32_t>(data + at);
               const uint16_t type = load<uint16_t>(data + at + 4), flags = load<uint16_t>(data + at + 6);
               if (len < nlmsghdrBytes || len > size - at) break;
               FLASHLOG(trace, 9, "Netlink message: ", n, " len: 0x", Hex{len}, " type: 0x", Hex{type},
                        " flags: 0x", Hex{flags});
               switch (type) {
               case NLMSG_NOOP:
               case NLMSG_DONE: break;
               case NLMSG_ERROR:
                  if (len >= nlmsghdrBytes + 4) FLASHLOG(trace, 9, "NLMSG_ERROR: ", load<int32_t>(data + at + 16));
                  break;
               case NLMSG_OVERRUN: FLASHLOG(trace, 9, "NLMSG_OVERRUN"); break;
               case rtmNewCacheReport:
                  if (mrtMsg) {
                     FLASHLOG(trace, 2, "WARN: More than one message in one pkt. ",
                              "Returning first one, discarding others.");
                     break;
                  }
                  mrtMsg = readNetlinkMrtMessage(af(), data + at, len, wrongVifMessage(), noCacheMessage(),
                                                 wholePktMessage(), status);
                  break;
               default: FLASHLOG(trace, 3, "Unexpected Netlink message type: ", type);
               }
               const std::size_t step = align4(len);
               if (step >= size - at) break;
               at += step;
            }
         }
      }
   } else {
      GANT_ASSERT(0 && "Unknown address family not supported");
   }

   if (!mrtMsg) {
      FLASHLOG(trace, 5, "MrtNotify Rcv: Invalid MRT Alert");
      return nullptr;
   }
   const char* kind = "NoCacheMessage on intf:";
   switch (mrtMsg->type()) {
   case Pakto::MrtMessageType::WrongVif:
      wrongVifCounterInc(1);
      kind = "WrongVifMessage on intf:";
      break;
   case Pakto::MrtMessageType::NoCache: noCacheCounterInc(1); break;
   case Pakto::MrtMessageType::WholePkt:
      wholePktCounterInc(1);
      kind = "WholePktMessage on intf:";
      break;
   }
   FLASHLOG(fastTrace, 1, kind, mrtMsg->intfId(), " for src: ", mrtMsg->source(), " and grp: ", mrtMsg->group());
   FLASHLOG(trace, 5, kind, mrtMsg->intfId(), " for src: ", mrtMsg->source(), " and grp: ", mrtMsg->group());
   if (raw && mrtMsg->type() == Pakto::MrtMessageType::WholePkt) {
      // The record is followed by the packet: the flow is the packet's own.
      const Pakto::IpGenAddr source = address(Pakto::ipv4(), data + 32);
      const Pakto::IpGenAddr group = address(Pakto::ipv4(), data + 36);
      FLASHLOG(trace, 9, "src: ", source, "dst: ", group);
      mrtMsg->sourceIs(source);
      mrtMsg->groupIs(group);
      pkt->trimHead(std::size_t(data[0] & 0x0F) * 4);
      mrtMsg->pktIs(pkt);
      FLASHLOG(trace, 9, "src: ", source, "dst: ", group, " iif: ", mrtMsg->intfId());
   }
   return mrtMsg;
}

} // namespace Routing::Multicast::Notify
