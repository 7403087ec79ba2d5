#pragma once
// A producer's side of the MFIB directory across processes: it follows the
// producer's own MfibDir and writes it, row per VRF, into a shared table
// (MfibDirTable) that readers in other processes find and mirror.
//
// A producer that stops without withdraw() (killed, say) leaves the table:
// its routes stay in force for readers, which mark it stale; when it
// starts again it reopens the same table, and readers follow it.
#include "shmfib/DirTable.h"
#include "shmfib/MfibDir.h"

#include <map>
#include <memory>

namespace Pond::Multicast::Fib {

class MfibDirPublisher {
 public:
   MfibDirPublisher(Pakto::AddressFamily af, const Gant::String& app, const Gant::Ptr<MfibDir>& dir,
                    Loop::EventLoop* loop, const Pond::Options& options = {});
   ~MfibDirPublisher();
   MfibDirPublisher(const MfibDirPublisher&) = delete;
   MfibDirPublisher& operator=(const MfibDirPublisher&) = delete;

   // A clean exit: every row goes, then the table's name, so that readers
   // unmount this producer's tables.
   void withdraw();
   const Gant::Ptr<MfibDirTable>& table() const noexcept { return table_; }

 private:
   struct DirReactor : MfibDir::Reactor {
      DirReactor(MfibDirPublisher& p, MfibDir* d) : MfibDir::Reactor(d), publisher(p) {}
      void onDirColl(const L3::VrfName& vrf) override { publisher.follow(vrf); }
      MfibDirPublisher& publisher;
   };
   struct CollReactor : MfibDirColl::Reactor {
      CollReactor(MfibDirPublisher& p, MfibDirColl* c) : MfibDirColl::Reactor(c), publisher(p) {}
      void onPondUrl() override { publisher.publish(notifier()->vrfName()); }
      void onBitMapperPondUrl() override { publisher.publish(notifier()->vrfName()); }
      MfibDirPublisher& publisher;
   };

   void follow(const L3::VrfName& vrf);
   void publish(const L3::VrfName& vrf);

   Gant::Ptr<MfibDir> dir_;
   Gant::Ptr<MfibDirTable> table_;
   DirReactor dirReactor_;
   std::map<L3::VrfName, std::unique_ptr<CollReactor>> colls_;
};

} // namespace Pond::Multicast::Fib
