#pragma once
// A producer application's side of the MFIB in one object: its MfibDir in a
// state tree of its own, the writer that creates one route table per VRF,
// and the publisher that announces them to readers in other processes.
//
//    MfibProducer pim(AddressFamily::ipv4, "pim", loop);
//    pim.routeIs(vrf, route);   // the VRF's table is created on first use
//    pim.withdraw();            // a clean exit: readers let go of its routes
//
// Destroyed without withdraw(), it leaves its tables as a killed producer
// would: readers keep its routes in force, and a producer of the same name
// started later reopens the tables with what they hold.
#include "shmfib/DirPublisher.h"
#include "shmfib/MfibDirWriter.h"

#include <map>
#include <optional>

namespace Pond::Multicast::Fib {

class MfibProducer {
 public:
   MfibProducer(Pakto::AddressFamily af, const Gant::String& app, Loop::EventLoop& loop,
                const Pond::Options& options = {});
   ~MfibProducer();
   MfibProducer(const MfibProducer&) = delete;
   MfibProducer& operator=(const MfibProducer&) = delete;

   Pakto::AddressFamily af() const noexcept { return af_; }
   const Gant::String& app() const noexcept { return writer_.app(); }
   MfibDirWriter& writer() noexcept { return writer_; }

   // The VRF's route table, created and announced on first use.
   Status& table(const L3::VrfName& vrf);
   // The OIF index of an interface in the VRF's table: the one the table
   // already names it by, or the lowest free one, entered into the table.
   // Throws Gant::RangeError when all 512 are taken.
   OifIndex oifIndex(const L3::VrfName& vrf, const Pakto::IntfId& intf);
   void routeIs(const L3::VrfName& vrf, const Route& route) { table(vrf).routeIs(route); }
   void routeDel(const L3::VrfName& vrf, const IpGenRouteKey& key);
   // Removes the VRF's table: readers unmount it.
   void vrfDel(const L3::VrfName& vrf);
   // Removes every table and the directory.
   void withdraw();

 private:
   struct Vrf {
      Gant::Ptr<Status> table;
      std::map<Pakto::IntfId, OifIndex> oifIndex;
   };
   Vrf& vrf(const L3::VrfName& name);

   Pakto::AddressFamily af_;
   Pond::Options options_;
   Gant::Ptr<Hive::Dir> dir_;
   MfibDirWriter writer_;
   std::optional<MfibDirPublisher> publisher_;
   std::map<L3::VrfName, Vrf> vrfs_;
};

} // namespace Pond::Multicast::Fib
