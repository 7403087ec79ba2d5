#include "shmfib/MfibDirSm.h"

#include "flashlog/Flashlog.h"
#include "gant/Assert.h"

namespace Pond::Multicast::Fib {

namespace {
Flashlog::Handle& trace = Flashlog::handle("MfibDirSm");
}

MfibDirSm::MfibDirSm(const Gant::Ptr<Hive::Dir>& watched, const Gant::Ptr<MfibPondDir>& pondDir,
                     Loop::EventLoop& loop, const Pond::Options& options)
    : watched_(watched), pondDir_(pondDir), loop_(loop), options_(options), dirReactor_(*this, watched.ptr()) {
   dirReactor_.activeIs(false);
}

MfibDirSm::~MfibDirSm() {
   // Unmount in order, so that the collections let go of every table.
   // A copy: the name is erased with the entry that holds it.
   while (!appDir_.empty()) mfibAppDirDel(Gant::String(appDir_.begin()->first));
}

void MfibDirSm::handleInitialized() {
   FLASHLOG(trace, 9, "void Pond::Multicast::Fib::MfibDirSm::handleInitialized()");
   for (const auto& [name, entity] : watched_->entries())
      if (dynamic_cast<MfibDir*>(entity.ptr())) handleMfibDir(name);
   dirReactor_.activeIs(true);
   initialized_ = true;
}

void MfibDirSm::handleMfibDir(const Gant::Name& name) {
   FLASHLOG(trace, 9, "void Pond::Multicast::Fib::MfibDirSm::handleMfibDir(", name, ")");
   Gant::Ptr<MfibDir> dir(dynamic_cast<MfibDir*>(watched_->entry(name).ptr()));
   if (!dir) {
      if (!appDir_.count(name)) return;
      FLASHLOG(trace, 8, "Deleted Mfib directory ", name);
      mfibAppDirDel(name);
      return;
   }
   if (auto it = mfibAppDir_.find(name); it != mfibAppDir_.end() && it->second == dir) return;
   FLASHLOG(trace, 8, "Created Mfib directory ", name);
   if (appDir_.count(name)) mfibAppDirDel(name); // replaced by another
   mfibAppDirIs(name, dir);
   for (const auto& [vrf, coll] : dir->dirColl()) appDir_[name]->newMfibColl(vrf);
}

void MfibDirSm::mfibAppDirIs(const Gant::String& app, const Gant::Ptr<MfibDir>& dir) {
   mfibAppDir_[app] = dir;
   appDir_[app] = std::make_unique<GantAppDir>(*this, app, dir.ptr());
}

void MfibDirSm::mfibAppDirDel(const Gant::String& app) {
   if (auto it = appDir_.find(app); it != appDir_.end()) {
      for (auto& [vrf, coll] : it->second->colls) coll->handleDel();
      appDir_.erase(it);
   }
   mfibAppDir_.erase(app);
}

void MfibDirSm::GantAppDir::onDirColl(const L3::VrfName& vrf) {
   if (notifier()->dirColl(vrf)) {
      if (!colls.count(vrf)) newMfibColl(vrf);
      return;
   }
   if (auto it = colls.find(vrf); it != colls.end()) {
      it->second->handleDel();
      colls.erase(it);
   }
}

void MfibDirSm::GantAppDir::newMfibColl(const L3::VrfName& vrf) {
   colls[vrf] = std::make_unique<GantMfibColl>(sm, app, notifier()->dirColl(vrf).ptr());
   sm.handleMountPoint(app, vrf);
}

void MfibDirSm::handleMountPoint(const Gant::String& app, const L3::VrfName& vrf) {
   FLASHLOG(trace, 9, "void Pond::Multicast::Fib::MfibDirSm::handleMountPoint() App: ", app, " Vrf: ", vrf.str());
   auto appDir = appDir_.find(app);
   GANT_ASSERT_TEXT(appDir != appDir_.end(), "appDir");
   auto found = appDir->second->colls.find(vrf);
   if (found == appDir->second->colls.end()) return;
   GantMfibColl& c = *found->second;
   const Gant::Ptr<MfibDirColl> dirColl = mfibAppDir_[app]->dirColl(vrf);
   const Gant::String url = dirColl ? dirColl->pondUrl() : Gant::String();
   if (url.empty()) {
      FLASHLOG(trace, 8, "Ignoring Pond URL ", url, " of size 0");
      return;
   }
   FLASHLOG(trace, 8, "Mounting ", url, " Mfib pond table for VRF ", vrf.str());
   Gant::Ptr<MfibPondColl> coll = pondDir_->pondCollIs(vrf);
   if (c.table && c.url != url) {
      // A new location: the old table goes first, so that one producer
      // never has two tables in a VRF's collection.
      coll->pondPtrDel(c.table.ptr());
      c.table = nullptr;
   }
   if (!c.table) {
      c.table = statusFactory(Gant::Name(app));
      c.table->openReader(url, loop_, options_);
      c.url = url;
   }
   const Gant::String bitMapperUrl = dirColl->bitMapperPondUrl();
   if (!bitMapperUrl.empty() && (!c.bitMapper || c.bitMapperUrl != bitMapperUrl)) {
      c.bitMapper = BitMapper::pondStatusFactory(Gant::Name(app));
      c.bitMapper->openReader(bitMapperUrl, loop_, options_);
      c.bitMapperUrl = bitMapperUrl;
      FLASHLOG(trace, 8, " bitMapperUrl ", bitMapperUrl);
      FLASHLOG(trace, 8, " bitMapper ", c.bitMapper->name());
      FLASHLOG(trace, 8, " ptr: ", static_cast<const void*>(c.bitMapper.ptr()));
   }
   c.table->bitMapperPondStatusIs(c.bitMapper.ptr());
   coll->pondPtrIs(c.table.ptr(), Gant::PtrConst<Status>(c.table.ptr()));
}

void MfibDirSm::GantMfibColl::handleDel() {
   FLASHLOG(trace, 8, "UnMounting ", url, " Mfib pond table for VRF ", vrf.str(), " for app ", app);
   if (!table) return;
   if (Gant::Ptr<MfibPondColl> coll = sm.pondDir_->pondColl(vrf)) {
      coll->pondPtrDel(table.ptr());
      // Other producers' tables of the VRF stay reachable.
      if (coll->pondPtrSize() == 0) sm.pondDir_->pondCollDel(vrf);
   }
   table = nullptr;
   bitMapper = nullptr;
}

Gant::Ptr<Status> MfibDirSm::mfibPond(const Gant::String& app, const L3::VrfName& vrf) const {
   auto a = appDir_.find(app);
   if (a == appDir_.end()) return nullptr;
   auto c = a->second->colls.find(vrf);
   return c == a->second->colls.end() ? nullptr : c->second->table;
}

Gant::Ptr<MfibDirSm> mfibDirSmFactory(const Gant::Ptr<Hive::Dir>& watched, const Gant::Ptr<MfibPondDir>& pondDir,
                                      Loop::EventLoop& loop, const Pond::Options& options) {
   Gant::Ptr<MfibDirSm> sm = Gant::make<MfibDirSm>(watched, pondDir, loop, options);
   sm->handleInitialized();
   return sm;
}

} // namespace Pond::Multicast::Fib
