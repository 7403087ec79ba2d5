#include "notify/MrtNotifySm.h"

#include "flashlog/Flashlog.h"

#include <chrono>

namespace Routing::Multicast::Notify {

namespace {
Flashlog::Handle& trace = Flashlog::handle("Mroute::MrtNotifySm");
// One line per review, which can stay on when the detailed trace is off.
Flashlog::Handle& fastTrace = Flashlog::handle("Mroute::MrtNotify::Upcalls");
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
   pamReactor_.pamIs(pam);
   if (!pam) return;
   // The review reads the socket: the descriptor's reactor only says so.
   pam->reviewedOnReadableIs(true);
   // Upcalls already queued are not left for the next readable event.
   rxPkt();
}

unsigned MrtNotifySm::rxPkt() {
   FLASHLOG(trace, 9, "unsigned MrtNotifySm::rxPkt()");
   const Gant::Ptr<MrtNotifySocketPam> pam = pamManager_->pam();
   using Clock = std::chrono::steady_clock;
   const Clock::time_point start = Clock::now();
   const Clock::time_point deadline =
       start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(loopQuantum_));
   FLASHLOG(fastTrace, 1, "Start review of kernel upcalls");
   unsigned count = 0;
   while (pam && Clock::now() < deadline) {
      const Gant::Ptr<Pakto::Pkt> pkt = pam->nextRxPkt();
      if (!pkt) {
         FLASHLOG(trace, 7, "RX: Error - No Packet");
         break;
      }
      ++count;
      pamManager_->readMrtMessage(pkt, vifStatus_);
   }
   const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
   FLASHLOG(trace, 5, "Processed ", count, " messages in ", elapsed, " seconds.");
   FLASHLOG(fastTrace, 1, "Finished review of ", count, " kernel upcalls in ", elapsed, " seconds");
   return count;
}

} // namespace Routing::Multicast::Notify
