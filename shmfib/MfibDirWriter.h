#pragma once
// A producer's side of the MFIB directory: creates and removes its route
// table per VRF (and the VRF's bit index allocator table), enters them into
// its own MfibPondDir, and keeps its MfibDir, which it places in the given
// state-tree directory under the application's name, in step. An
// MfibDirPublisher makes that MfibDir visible to other processes.
#include "bitmapper/BitMapper.h"
#include "hive/Dir.h"
#include "shmfib/MfibDir.h"
#include "shmfib/MfibPondDir.h"

#include <map>

namespace Pond::Multicast::Fib {

class MfibDirWriter : public Gant::PtrInterface {
 public:
   // Tables are created with options, their readers woken through loop.
   MfibDirWriter(const Gant::String& app, const Gant::Ptr<Hive::Dir>& dir, const Gant::Ptr<MfibDir>& mfibDir,
                 Loop::EventLoop* loop = nullptr, const Pond::Options& options = {});
   ~MfibDirWriter() override;

   void handleInitialized();
   bool initialized() const noexcept { return initialized_; }
   const Gant::String& app() const noexcept { return app_; }
   const Gant::Ptr<MfibDir>& mfibDir() const noexcept { return mfibDir_; }
   const Gant::Ptr<MfibPondDir>& mfibPondDir() const noexcept { return mfibPondDir_; }

   Gant::Ptr<Status> doAddPond(const L3::VrfName& vrf, const Gant::String& url);
   // Removes the table: readers unmount it.
   void doDelPond(const L3::VrfName& vrf, const Gant::String& url);
   Gant::Ptr<BitMapper::PondStatus> doAddBitMapperPond(const L3::VrfName& vrf, const Gant::String& url);
   void doDelBitMapperPond(const L3::VrfName& vrf, const Gant::String& url);
   Gant::Ptr<Status> mfibPond(const Gant::String& url) const;
   Gant::Ptr<BitMapper::PondStatus> mfibBitMapperPond(const Gant::String& url) const;

 private:
   Gant::Ptr<MfibDirColl> dirCollIs(const L3::VrfName& vrf);

   Gant::String app_;
   Gant::Ptr<Hive::Dir> dir_;
   Gant::Ptr<MfibDir> mfibDir_;
   Gant::Ptr<MfibPondDir> mfibPondDir_;
   Loop::EventLoop* loop_;
   Pond::Options options_;
   std::map<Gant::String, Gant::Ptr<Status>> ponds_;
   std::map<Gant::String, Gant::Ptr<BitMapper::PondStatus>> bitMapperPonds_;
   bool initialized_ = false;
};

} // namespace Pond::Multicast::Fib
