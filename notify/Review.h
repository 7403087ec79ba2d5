#pragma once
// One review of the upcalls waiting in a pam's socket: read and handle
// packets until none is left or the quantum is spent, so that a flood of
// upcalls is taken in slices between the event loop's other work. What is
// left stays queued in the socket and makes it readable again.
#include "flashlog/Flashlog.h"
#include "pakto/Pam.h"

#include <chrono>

namespace Routing::Multicast::Notify {

// The review's one-line summaries, which can stay on when detail is off.
inline Flashlog::Handle& reviewFastTrace = Flashlog::handle("Mroute::MrtNotify::Upcalls");

// Calls handle(pkt) for each packet read; returns how many were read.
template <class Handle>
unsigned reviewUpcalls(Flashlog::Handle& trace, Pakto::Pam* pam, double quantum, Handle&& handle) {
   using Clock = std::chrono::steady_clock;
   const Clock::time_point start = Clock::now();
   const Clock::time_point deadline =
       start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(quantum));
   FLASHLOG(reviewFastTrace, 1, "Start review of kernel upcalls");
   unsigned count = 0;
   while (pam && Clock::now() < deadline) {
      const Gant::Ptr<Pakto::Pkt> pkt = pam->nextRxPkt();
      if (!pkt) {
         FLASHLOG(trace, 7, "RX: Error - No Packet");
         break;
      }
      ++count;
      handle(pkt);
   }
   const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
   FLASHLOG(trace, 5, "Processed ", count, " messages in ", elapsed, " seconds.");
   FLASHLOG(reviewFastTrace, 1, "Finished review of ", count, " kernel upcalls in ", elapsed, " seconds");
   return count;
}

} // namespace Routing::Multicast::Notify
