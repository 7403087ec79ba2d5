#include "notify/MrtNotifySm.h"

#include "notify/Review.h"

namespace Routing::Multicast::Notify {

namespace {
Flashlog::Handle& trace = Flashlog::handle("Mroute::MrtNotifySm");
constexpr uint32_t largestDatagram = 65535;
} // namespace

MrtNotifySm::MrtNotifySm(const Gant::Ptr<MrtNotifyPamManager>& pamManager,
                         const Gant::Ptr<const KernelMfib::Status>& vifStatus)
    : pamManager_(pamManager), vifStatus_(vifStatus), managerReactor_(*this, pamManager.ptr()),
      pamReactor_(*this) {
   handleInitialized();
   bindPam();
}

Gant::Ptr<MrtNotifySm> mrtNotifySmFactory(const Gant::Ptr<MrtNotifyPamManager>& pamManager,
                                          const Gant::Ptr<const KernelMfib::Status>& vifStatus) {
   return Gant::make<MrtNotifySm>(pamManager, vifStatus);
}

void MrtNotifySm::initializedIs(bool initialized) {
   if (initialized == initialized_) return;
   initialized_ = initialized;
   handleInitialized();
}

void MrtNotifySm::handleInitialized() {
   FLASHLOG(trace, 9, "void MrtNotifySm::handleInitialized()");
   if (initialized_) return;
   if (pamManager_ && pamManager_->pam()) {
      FLASHLOG(trace, 5, "enabling MrtNotifyPam");
      // A datagram is read whole or not at all: room for the largest.
      Pakto::globalPktManager().pktSizeIs(largestDatagram);
      pamManager_->pam()->enabledIs(true);
      pamManager_->pam()->maxRxPktDataIs(largestDatagram);
   }
   initializedIs(true);
}

void MrtNotifySm::bindPam() {
   MrtNotifySocketPam* pam = pamManager_ ? pamManager_->pam().ptr() : nullptr;
   pamReactor_.notifierIs(pam);
   if (!pam) return;
   // The review reads the socket: the descriptor's reactor only says so.
   pam->reviewedOnReadableIs(true);
   // Upcalls already queued are not left for the next readable event.
   rxPkt();
}

unsigned MrtNotifySm::rxPkt() {
   FLASHLOG(trace, 9, "unsigned MrtNotifySm::rxPkt()");
   const Gant::Ptr<MrtNotifySocketPam> pam = pamManager_->pam();
   return reviewUpcalls(trace, pam.ptr(), loopQuantum_,
                        [this](const Gant::Ptr<Pakto::Pkt>& pkt) { pamManager_->readMrtMessage(pkt, vifStatus_); });
}

} // namespace Routing::Multicast::Notify
