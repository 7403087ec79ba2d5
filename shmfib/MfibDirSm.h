#pragma once
// A reader's side of the MFIB directory: it watches a state-tree directory
// holding one MfibDir per producer application (in another process, the
// one MfibDirMirror keeps), mounts each VRF's route table as a reader,
// links the VRF's bit index allocator table to it, and enters it into the
// VRF's MfibPondColl; it takes them out again when the producer, the VRF
// or the location goes away.
#include "bitmapper/BitMapper.h"
#include "hive/Dir.h"
#include "loop/EventLoop.h"
#include "shmfib/MfibDir.h"
#include "shmfib/MfibPondDir.h"

#include <map>
#include <memory>

namespace Pond::Multicast::Fib {

class MfibDirSm : public Gant::PtrInterface {
 public:
   MfibDirSm(const Gant::Ptr<Hive::Dir>& watched, const Gant::Ptr<MfibPondDir>& pondDir, Loop::EventLoop& loop,
             const Pond::Options& options = {});
   ~MfibDirSm() override;

   void handleInitialized();
   void handleMfibDir(const Gant::Name& app);
   void handleMountPoint(const Gant::String& app, const L3::VrfName& vrf);
   bool initialized() const noexcept { return initialized_; }
   const Gant::Ptr<MfibPondDir>& mfibPondDir() const noexcept { return pondDir_; }
   // The producers followed, by application name.
   const std::map<Gant::String, Gant::Ptr<MfibDir>>& mfibAppDir() const noexcept { return mfibAppDir_; }
   // The route table mounted for a producer's VRF, or null.
   Gant::Ptr<Status> mfibPond(const Gant::String& app, const L3::VrfName& vrf) const;

 private:
   struct GantMfibDir : Hive::Dir::Reactor {
      GantMfibDir(MfibDirSm& sm, Hive::Dir* d) : Hive::Dir::Reactor(d), sm(sm) {}
      void onEntry(const Gant::Name& name) override { sm.handleMfibDir(name); }
      MfibDirSm& sm;
   };
   // One VRF of one producer: its mounted tables.
   struct GantMfibColl : MfibDirColl::Reactor {
      GantMfibColl(MfibDirSm& sm, const Gant::String& app, MfibDirColl* c)
          : MfibDirColl::Reactor(c), sm(sm), app(app), vrf(c->vrfName()) {}
      void onPondUrl() override { sm.handleMountPoint(app, vrf); }
      void onBitMapperPondUrl() override { sm.handleMountPoint(app, vrf); }
      void handleDel();
      MfibDirSm& sm;
      Gant::String app;
      L3::VrfName vrf;
      Gant::String url;
      Gant::Ptr<Status> table;
      Gant::String bitMapperUrl;
      Gant::Ptr<BitMapper::PondStatus> bitMapper;
   };
   // One producer: its VRFs.
   struct GantAppDir : MfibDir::Reactor {
      GantAppDir(MfibDirSm& sm, const Gant::String& app, MfibDir* d) : MfibDir::Reactor(d), sm(sm), app(app) {}
      void onDirColl(const L3::VrfName& vrf) override;
      void newMfibColl(const L3::VrfName& vrf);
      MfibDirSm& sm;
      Gant::String app;
      std::map<L3::VrfName, std::unique_ptr<GantMfibColl>> colls;
   };

   void mfibAppDirIs(const Gant::String& app, const Gant::Ptr<MfibDir>& dir);
   void mfibAppDirDel(const Gant::String& app);

   Gant::Ptr<Hive::Dir> watched_;
   Gant::Ptr<MfibPondDir> pondDir_;
   Loop::EventLoop& loop_;
   Pond::Options options_;
   GantMfibDir dirReactor_;
   std::map<Gant::String, std::unique_ptr<GantAppDir>> appDir_;
   std::map<Gant::String, Gant::Ptr<MfibDir>> mfibAppDir_;
   bool initialized_ = false;
};

// Creates the machine and runs handleInitialized.
Gant::Ptr<MfibDirSm> mfibDirSmFactory(const Gant::Ptr<Hive::Dir>& watched, const Gant::Ptr<MfibPondDir>& pondDir,
                                      Loop::EventLoop& loop, const Pond::Options& options = {});

} // namespace Pond::Multicast::Fib
