#pragma once
// Where the kernel delivers IPv6 upcalls only on the mroute socket itself
// (as mrt6msg records), the relay reads them from that socket, handed in by
// its owner, and re-sends each as a netlink cache report, so that every
// consumer reads IPv6 upcalls the one netlink way.
#include "fib/KernelMfib.h"
#include "notify/Messages.h"
#include "notify/SocketPam.h"

namespace Routing::Multicast::Notify {

class MrtIcmpV6RelaySm : public Gant::PtrInterface {
 public:
   // vifStatus, when given, names the interface of each upcall's mif.
   explicit MrtIcmpV6RelaySm(const Pakto::NamespaceName& netNs,
                             const Gant::Ptr<const KernelMfib::Status>& vifStatus = nullptr);
   ~MrtIcmpV6RelaySm() override;
   MrtIcmpV6RelaySm(const MrtIcmpV6RelaySm&) = delete;
   MrtIcmpV6RelaySm& operator=(const MrtIcmpV6RelaySm&) = delete;

   const Pakto::NamespaceName& netNs() const noexcept { return netNs_; }
   int mrtSkSd() const noexcept { return mrtSkSd_; }
   // A descriptor above 0 switches the relay on; every change rebuilds it.
   void mrtSkSdIs(int sd);
   const Gant::Ptr<MrtNotifySocketPam>& icmpV6Pam() const noexcept { return icmpV6Pam_; }
   const Gant::Ptr<MrtNotifyNetlinkSocketPam>& netlinkPam() const noexcept { return netlinkPam_; }
   void netlinkPamIs(const Gant::Name& name, const Pakto::NamespaceName& netNs);
   void netlinkPamDel();
   const Gant::Ptr<WrongVifMessage>& wrongIfMessage() const noexcept { return wrongIfMessage_; }
   const Gant::Ptr<NoCacheMessage>& noCacheMessage() const noexcept { return noCacheMessage_; }
   const Gant::Ptr<WholePktMessage>& wholePktMessage() const noexcept { return wholePktMessage_; }
   void wrongIfMessageIs() { wrongIfMessage_ = wrongVifMessageFactory(); }
   void noCacheMessageIs() { noCacheMessage_ = noCacheMessageFactory(); }
   void wholePktMessageIs() { wholePktMessage_ = wholePktMessageFactory(); }
   double loopQuantum() const noexcept { return loopQuantum_; }
   void loopQuantumIs(double seconds) noexcept { loopQuantum_ = seconds; }
   // Upcalls re-sent so far.
   uint64_t relayed() const noexcept { return relayed_; }

   void handleMrtSocket();
   // One review of the upcalls waiting on the mroute socket.
   unsigned rxPkt();
   // Relays the mrt6msg at the start of pkt; the message sent, or null
   // when the packet holds no upcall.
   Gant::Ptr<Pakto::MrtMessage> readMrtMessage(const Gant::Ptr<Pakto::Pkt>& pkt);

 private:
   struct PamReactor : MrtNotifySocketPam::Reactor {
      explicit PamReactor(MrtIcmpV6RelaySm& relay) : relay(relay) {}
      void onReadableCount() override { relay.rxPkt(); }
      MrtIcmpV6RelaySm& relay;
   };

   Pakto::NamespaceName netNs_;
   Gant::Ptr<const KernelMfib::Status> vifStatus_;
   int mrtSkSd_ = 0;
   Gant::Ptr<MrtNotifySocketPam> icmpV6Pam_;
   Gant::Ptr<MrtNotifyNetlinkSocketPam> netlinkPam_;
   Gant::Ptr<WrongVifMessage> wrongIfMessage_;
   Gant::Ptr<NoCacheMessage> noCacheMessage_;
   Gant::Ptr<WholePktMessage> wholePktMessage_;
   double loopQuantum_ = 0.5;
   uint64_t relayed_ = 0;
   PamReactor pamReactor_;
};

Gant::Ptr<MrtIcmpV6RelaySm> mrtIcmpV6RelaySmFactory(const Pakto::NamespaceName& netNs,
                                                    const Gant::Ptr<const KernelMfib::Status>& vifStatus = nullptr);

} // namespace Routing::Multicast::Notify
