#pragma once
// A reader's side of the MFIB directory across processes. Producers are
// found without being named: every producer's directory table is a shared
// object whose name starts with PREFIX.routing%2fmulticast%2ffibdir%2f (or
// routing6), so the mirror lists the shared-memory folder once and then
// follows it with inotify. For each producer it mounts the table and keeps a
// read-only MfibDir, named by the application, in the directory it was
// given: the directory MfibDirSm watches.
#include "loop/EventLoop.h"
#include "shmfib/DirTable.h"
#include "shmfib/MfibDir.h"
#include "sys/Fd.h"
#include "hive/Dir.h"

#include <map>
#include <memory>

namespace Pond::Multicast::Fib {

class MfibDirMirror {
 public:
   // Producers of af, their tables named with options.prefix; the shared
   // objects are looked for in shmDir.
   MfibDirMirror(Pakto::AddressFamily af, const Gant::Ptr<Hive::Dir>& dir, Loop::EventLoop& loop,
                 const Pond::Options& options = {}, const std::string& shmDir = "/dev/shm");
   ~MfibDirMirror();
   MfibDirMirror(const MfibDirMirror&) = delete;
   MfibDirMirror& operator=(const MfibDirMirror&) = delete;

   // Every producer found, live or stale.
   const Gant::Ptr<MfibProducers>& producers() const noexcept { return producers_; }
   // Whether every producer's directory found so far has been read once.
   bool settled() const;
   // The shared object name prefix of af's producer directories.
   static std::string tablePrefix(Pakto::AddressFamily af, const std::string& prefix);

 private:
   struct Producer : MfibDirTable::Reactor {
      Producer(MfibDirMirror& m, const Gant::String& app, const std::string& objectName);
      void onDirColl(const L3::VrfName& vrf) override;
      void onTableStatus() override;
      MfibDirMirror& mirror;
      Gant::String app;
      std::string path; // of its directory's shared object
      Gant::Ptr<MfibDirTable> table;
      Gant::Ptr<MfibDir> dir;
   };

   void scan();
   void readEvents();
   void found(const std::string& objectName);
   void gone(const std::string& objectName);
   bool appOf(const std::string& objectName, Gant::String& app) const;

   Pakto::AddressFamily af_;
   Gant::Ptr<Hive::Dir> dir_;
   Loop::EventLoop& loop_;
   Pond::Options options_;
   std::string shmDir_;
   std::string objectPrefix_;
   Gant::Ptr<MfibProducers> producers_;
   std::map<Gant::String, std::unique_ptr<Producer>> found_;
   Sys::Fd inotify_;
   Loop::Watch watch_;
};

} // namespace Pond::Multicast::Fib
