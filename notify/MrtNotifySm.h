#pragma once
// Enables the upcall manager's socket once and, each time the socket is
// readable, reviews the upcalls waiting in it for at most loopQuantum
// seconds, so that a flood of upcalls leaves the event loop its turns.
#include "fib/KernelMfib.h"
#include "notify/Notify.h"

namespace Routing::Multicast::Notify {

class MrtNotifySm : public Gant::PtrInterface {
 public:
   MrtNotifySm(const Gant::Ptr<MrtNotifyPamManager>& pamManager,
               const Gant::Ptr<const KernelMfib::Status>& vifStatus);
   MrtNotifySm(const MrtNotifySm&) = delete;
   MrtNotifySm& operator=(const MrtNotifySm&) = delete;

   const Gant::Ptr<MrtNotifyPamManager>& pamManager() const noexcept { return pamManager_; }
   const Gant::Ptr<const KernelMfib::Status>& vifStatus() const noexcept { return vifStatus_; }
   double loopQuantum() const noexcept { return loopQuantum_; }
   void loopQuantumIs(double seconds) noexcept { loopQuantum_ = seconds; }
   bool initialized() const noexcept { return initialized_; }
   void initializedIs(bool initialized);
   void handleInitialized();
   // One review: reads and parses upcalls until none is left or the
   // quantum is over; returns how many packets it read.
   unsigned rxPkt();

 private:
   struct ManagerReactor : MrtNotifyPamManager::Reactor {
      ManagerReactor(MrtNotifySm& sm, MrtNotifyPamManager* m) : MrtNotifyPamManager::Reactor(m), sm(sm) {}
      void onPam() override { sm.bindPam(); }
      MrtNotifySm& sm;
   };
   // Of the most derived pam's reactor type, whichever pam it watches: a pam
   // notifies its own attributes through every reactor it has, so a reactor
   // of a base type would be called through handlers its class lacks.
   struct PamReactor : MrtNotifyNetlinkSocketPam::Reactor {
      explicit PamReactor(MrtNotifySm& sm) : sm(sm) {}
      void onReadableCount() override { sm.rxPkt(); }
      void pamIs(MrtNotifySocketPam* pam) { attachTo(pam); }
      MrtNotifySm& sm;
   };
   void bindPam();

   Gant::Ptr<MrtNotifyPamManager> pamManager_;
   Gant::Ptr<const KernelMfib::Status> vifStatus_;
   double loopQuantum_ = 0.5;
   bool initialized_ = false;
   ManagerReactor managerReactor_;
   PamReactor pamReactor_;
};

// Creates the machine; its reactors are live at once.
Gant::Ptr<MrtNotifySm> mrtNotifySmFactory(const Gant::Ptr<MrtNotifyPamManager>& pamManager,
                                          const Gant::Ptr<const KernelMfib::Status>& vifStatus);

} // namespace Routing::Multicast::Notify
