#include "notify/MrtIcmpV6RelaySm.h"

#include "notify/Review.h"
#include "notify/Upcall.h"

#include <cstring>

namespace Routing::Multicast::Notify {

namespace {
Flashlog::Handle& trace = Flashlog::handle("Mroute::MrtIcmpV6Relay");

Pakto::IpGenAddr address6(const uint8_t* p) { return Pakto::IpGenAddr(Pakto::ipv6(), std::span<const uint8_t>(p, 16)); }
} // namespace

MrtIcmpV6RelaySm::MrtIcmpV6RelaySm(const Pakto::NamespaceName& netNs,
                                   const Gant::Ptr<const KernelMfib::Status>& vifStatus)
    : netNs_(netNs), vifStatus_(vifStatus), pamReactor_(*this) {}

MrtIcmpV6RelaySm::~MrtIcmpV6RelaySm() {
   pamReactor_.notifierIs(nullptr);
   if (icmpV6Pam_ && icmpV6Pam_->enabled()) icmpV6Pam_->enabledIs(false);
}

Gant::Ptr<MrtIcmpV6RelaySm> mrtIcmpV6RelaySmFactory(const Pakto::NamespaceName& netNs,
                                                    const Gant::Ptr<const KernelMfib::Status>& vifStatus) {
   return Gant::make<MrtIcmpV6RelaySm>(netNs, vifStatus);
}

void MrtIcmpV6RelaySm::mrtSkSdIs(int sd) {
   if (sd == mrtSkSd_) return;
   mrtSkSd_ = sd;
   handleMrtSocket();
}

void MrtIcmpV6RelaySm::netlinkPamIs(const Gant::Name& name, const Pakto::NamespaceName& netNs) {
   netlinkPam_ = mrtNotifyNetlinkSocketPamFactory(name, netNs);
}

void MrtIcmpV6RelaySm::netlinkPamDel() { netlinkPam_ = nullptr; }

void MrtIcmpV6RelaySm::handleMrtSocket() {
   FLASHLOG(trace, 9, "void MrtIcmpV6RelaySm::handleMrtSocket() ", mrtSkSd_, " NS:", netNs_);
   if (icmpV6Pam_) {
      FLASHLOG(trace, 5, "disabling IcmpV6Pam");
      pamReactor_.notifierIs(nullptr);
      icmpV6Pam_->enabledIs(false);
      icmpV6Pam_ = nullptr;
      netlinkPam_->enableTxIs(false);
      netlinkPamDel();
   }
   if (mrtSkSd_ <= 0) return;
   FLASHLOG(trace, 5, "enabling IcmpV6Pam");
   wrongIfMessageIs();
   noCacheMessageIs();
   wholePktMessageIs();
   icmpV6Pam_ = mrtNotifySocketPamFactory(Gant::Name("MrtIcmpV6"));
   icmpV6Pam_->afIs(Pakto::ipv6());
   icmpV6Pam_->netNsIs(netNs_);
   icmpV6Pam_->sdIs(mrtSkSd_);
   // The review reads the socket: the descriptor's reactor only says so.
   icmpV6Pam_->reviewedOnReadableIs(true);
   icmpV6Pam_->enabledIs(true);
   pamReactor_.notifierIs(icmpV6Pam_.ptr());
   netlinkPamIs(Gant::Name("MrtIcmpV6Relay"), netNs_);
   netlinkPam_->afIs(Pakto::ipv6());
   netlinkPam_->enableTxIs(true);
}

unsigned MrtIcmpV6RelaySm::rxPkt() {
   FLASHLOG(trace, 9, "unsigned MrtIcmpV6RelaySm::rxPkt()");
   return reviewUpcalls(trace, icmpV6Pam_.ptr(), loopQuantum_,
                        [this](const Gant::Ptr<Pakto::Pkt>& pkt) { readMrtMessage(pkt); });
}

Gant::Ptr<Pakto::MrtMessage> MrtIcmpV6RelaySm::readMrtMessage(const Gant::Ptr<Pakto::Pkt>& pkt) {
   using namespace Upcall;
   if (!pkt || pkt->size() < mrt6msgBytes) {
      FLASHLOG(trace, 5, "MrtNotify Rcv: Invalid MRT Alert");
      return nullptr;
   }
   const uint8_t* data = pkt->data();
   const uint8_t type = data[mrt6msgType];
   FLASHLOG(trace, 9, "msg type: ", unsigned(type));
   uint16_t mif;
   std::memcpy(&mif, data + mrt6msgMif, sizeof mif);
   const Pakto::IpGenAddr source = address6(data + mrt6msgSrc), group = address6(data + mrt6msgDst);
   FLASHLOG(trace, 9, "sAddr: ", source, " gAddr: ", group, " mif ", mif);
   Gant::Ptr<Pakto::MrtMessage> message;
   const char* kind = nullptr;
   switch (type) {
   case 2: message = wrongIfMessage_, kind = "WrongVifMessage on intf:"; break;
   case 1: message = noCacheMessage_, kind = "NoCacheMessage on intf:"; break;
   case 3: message = wholePktMessage_, kind = "WholePktMessage on intf:"; break;
   default: break;
   }
   if (!message) {
      FLASHLOG(trace, 5, "MrtNotify Rcv: Invalid MRT Alert");
      return nullptr;
   }
   const Pakto::IntfId intf = vifStatus_ ? vifStatus_->intfIdColl(mif) : Pakto::IntfId();
   message->sourceIs(source);
   message->groupIs(group);
   message->vifIs(mif);
   message->intfIdIs(intf);
   message->pktIs(nullptr);
   FLASHLOG(trace, 5, kind, intf, " for src: ", source, " and grp: ", group);
   if (type == 3) {
      // The record comes first, then the packet whole, its IPv6 header included.
      pkt->trimHead(mrt6msgBytes);
      message->pktIs(pkt);
      FLASHLOG(trace, 9, "src: ", source, " dst: ", group, " iif: ", intf);
   }
   if (netlinkPam_) netlinkPam_->txMrtNotification(*message, mif);
   ++relayed_;
   return message;
}

} // namespace Routing::Multicast::Notify
