#include "shmfib/DirMirror.h"

#include "flashlog/Flashlog.h"
#include "pond/Shape.h"
#include "sys/Calls.h"

#include <sys/inotify.h>
#include <sys/stat.h>

#include <cstring>

namespace Pond::Multicast::Fib {

namespace {
Flashlog::Handle& trace = Flashlog::handle("Mroute::MfibPond");
} // namespace

std::string MfibDirMirror::tablePrefix(Pakto::AddressFamily af, const std::string& prefix) {
   return Pond::segmentName(prefix, MfibDirTable::mountPath(af, "")).substr(1);
}

MfibDirMirror::MfibDirMirror(Pakto::AddressFamily af, const Gant::Ptr<Hive::Dir>& dir, Loop::EventLoop& loop,
                             const Pond::Options& options, const std::string& shmDir)
    : af_(af), dir_(dir), loop_(loop), options_(options), shmDir_(shmDir),
      objectPrefix_(tablePrefix(af, options.prefix)), producers_(mfibProducersFactory(Gant::Name("producers"))) {
   Sys::Calls& sys = Sys::calls();
   // Watch first, then list: a producer that appears in between is met twice,
   // which finding it is proof against.
   inotify_.reset(static_cast<int>(Sys::check(sys.inotify_init1(IN_NONBLOCK | IN_CLOEXEC), "inotify_init1")));
   Sys::check(sys.inotify_add_watch(inotify_.get(), shmDir_.c_str(),
                                    IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM | IN_ONLYDIR),
              "inotify_add_watch");
   watch_ = loop_.watchReadable(inotify_.get(), [this] { readEvents(); });
   scan();
}

MfibDirMirror::~MfibDirMirror() {
   for (const auto& [app, p] : found_) dir_->entryDel(Gant::Name(app));
}

bool MfibDirMirror::settled() const {
   for (const auto& [app, p] : found_)
      if (!p->table->tableReader() || !p->table->tableReader()->ready()) return false;
   return true;
}

void MfibDirMirror::scan() {
   for (const std::string& name : Sys::directoryNames(shmDir_.c_str())) found(name);
}

void MfibDirMirror::readEvents() {
   alignas(inotify_event) char buf[4096];
   for (;;) {
      const Sys::Result r = Sys::calls().read(inotify_.get(), buf, sizeof buf);
      if (!r.ok() || r.value <= 0) return;
      for (long at = 0; at + long(sizeof(inotify_event)) <= r.value;) {
         inotify_event e;
         std::memcpy(&e, buf + at, sizeof e);
         const char* name = buf + at + sizeof e;
         at += long(sizeof e) + e.len;
         if (e.mask & IN_Q_OVERFLOW) {
            FLASHLOG(trace, 1, "MfibDirMirror: events lost, listing ", shmDir_, " again");
            scan();
         } else if (e.len == 0) {
            continue;
         } else if (e.mask & (IN_CREATE | IN_MOVED_TO)) {
            found(name);
         } else if (e.mask & (IN_DELETE | IN_MOVED_FROM)) {
            gone(name);
         }
      }
   }
}

bool MfibDirMirror::appOf(const std::string& objectName, Gant::String& app) const {
   if (!objectName.starts_with(objectPrefix_) || objectName.size() == objectPrefix_.size()) return false;
   app = Pond::decodeMountPath(std::string_view(objectName).substr(objectPrefix_.size()));
   return true;
}

void MfibDirMirror::found(const std::string& objectName) {
   Gant::String app;
   if (!appOf(objectName, app) || found_.count(app)) return;
   FLASHLOG(trace, 5, "MfibDirMirror: found producer ", app);
   auto p = std::make_unique<Producer>(*this, app, objectName);
   dir_->entryIs(Gant::Name(app), p->dir);
   producers_->liveIs(app, false);
   found_.emplace(app, std::move(p));
}

void MfibDirMirror::gone(const std::string& objectName) {
   Gant::String app;
   if (!appOf(objectName, app)) return;
   auto it = found_.find(app);
   if (it == found_.end()) return;
   FLASHLOG(trace, 5, "MfibDirMirror: producer ", app, " withdrew");
   // Its VRFs leave first, so that watchers unmount its tables one by one.
   it->second->dir->dirCollDelAll();
   dir_->entryDel(Gant::Name(app));
   producers_->liveDel(app);
   found_.erase(it);
}

MfibDirMirror::Producer::Producer(MfibDirMirror& m, const Gant::String& a, const std::string& objectName)
    : mirror(m), app(a), path(m.shmDir_ + "/" + objectName), table(mfibDirTableFactory(Gant::Name(a))), dir(mfibDirFactory(Gant::Name(a))) {
   notifierIs(table.ptr());
   table->openReader(MfibDirTable::mountPath(m.af_, app), m.loop_, m.options_);
}

void MfibDirMirror::Producer::onDirColl(const L3::VrfName& vrf) {
   const Pond::Found<MfibDirEntry> row = table->dirColl(vrf);
   if (!row) {
      dir->dirCollDel(vrf);
      return;
   }
   Gant::Ptr<MfibDirColl> coll = dir->dirCollIs(vrf);
   coll->bitMapperPondUrlIs(row->bitMapperPondUrl().str());
   coll->pondUrlIs(row->pondUrl().str());
}

void MfibDirMirror::Producer::onTableStatus() {
   const bool live = table->writerAlive();
   struct stat st;
   // A producer that withdrew unlinked its directory before it ended: it
   // leaves (the deletion event is on its way) rather than going stale.
   if (!live && !Sys::calls().lstat(path.c_str(), &st).ok()) return;
   if (!live) FLASHLOG(trace, 3, "MfibDirMirror: producer ", app, " is stale: its routes stay in force");
   mirror.producers_->liveIs(app, live);
}

} // namespace Pond::Multicast::Fib
