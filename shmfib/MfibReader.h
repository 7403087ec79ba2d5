#pragma once
// A reader's side of the MFIB in one object, for one address family: the
// mirror of every producer's directory, the mounting machine, the merged
// collection of each VRF and, per VRF, the key-ordered index of the routes
// in force that OrderRouteSm keeps.
//
//    MfibReader reader(AddressFamily::ipv4, loop);
//    reader.onRoute = [&](const L3::VrfName& vrf, const IpGenRouteKey& key) { ... };
//    loop.runUntil([&] { return reader.settled(); }, 5);
//    for (const auto& [key, table] : reader.ordered(vrf)->route()) ...
#include "shmfib/DirMirror.h"
#include "shmfib/MfibDirSm.h"
#include "shmfib/OrderRouteSm.h"

#include <functional>
#include <map>
#include <memory>

namespace Pond::Multicast::Fib {

class MfibReader {
 public:
   MfibReader(Pakto::AddressFamily af, Loop::EventLoop& loop, const Pond::Options& options = {},
              const std::string& shmDir = "/dev/shm");
   ~MfibReader();
   MfibReader(const MfibReader&) = delete;
   MfibReader& operator=(const MfibReader&) = delete;

   // A key whose merged route may have changed: its table in force moved, or
   // a table's route for it was written or removed.
   std::function<void(const L3::VrfName&, const IpGenRouteKey&)> onRoute;
   // A producer appeared, went stale, came back or left.
   std::function<void(const Gant::String& app)> onProducer;
   // A producer's table was mounted, lost its writer or was found corrupt.
   std::function<void(const L3::VrfName&, const Status&)> onTableStatus;

   Pakto::AddressFamily af() const noexcept { return af_; }
   const Gant::Ptr<MfibPondDir>& mfibPondDir() const noexcept { return pondDir_; }
   const Gant::Ptr<MfibProducers>& producers() const noexcept { return mirror_.producers(); }
   MfibDirSm& mountingMachine() noexcept { return *sm_; }
   // The routes in force of a VRF in key order, each with its table; null
   // when no producer has a table for the VRF.
   Gant::Ptr<RouteOrderedCollection> ordered(const L3::VrfName& vrf) const;
   // Whether every directory and table found so far has been read.
   bool settled() const;

 private:
   struct Vrf;
   struct PondDirReactor : MfibPondDir::Reactor {
      PondDirReactor(MfibReader& r, MfibPondDir* d) : MfibPondDir::Reactor(d), reader(r) {}
      void onPondColl(const L3::VrfName& vrf) override { reader.follow(vrf); }
      MfibReader& reader;
   };
   struct ProducersReactor : MfibProducers::Reactor {
      ProducersReactor(MfibReader& r, MfibProducers* p) : MfibProducers::Reactor(p), reader(r) {}
      void onLive(const Gant::String& app) override {
         if (reader.onProducer) reader.onProducer(app);
      }
      MfibReader& reader;
   };

   void follow(const L3::VrfName& vrf);

   Pakto::AddressFamily af_;
   Gant::Ptr<Hive::Dir> watched_;
   Gant::Ptr<MfibPondDir> pondDir_;
   MfibDirMirror mirror_;
   ProducersReactor producersReactor_;
   PondDirReactor pondDirReactor_;
   std::map<L3::VrfName, std::unique_ptr<Vrf>> vrfs_;
   Gant::Ptr<MfibDirSm> sm_;
};

} // namespace Pond::Multicast::Fib
