#include "shmfib/MfibDirWriter.h"

#include "flashlog/Flashlog.h"
#include "gant/Assert.h"

namespace Pond::Multicast::Fib {

namespace {
Flashlog::Handle& trace = Flashlog::handle("Mroute::MfibPond");
}

MfibDirWriter::MfibDirWriter(const Gant::String& app, const Gant::Ptr<Hive::Dir>& dir,
                             const Gant::Ptr<MfibDir>& mfibDir, Loop::EventLoop* loop, const Pond::Options& options)
    : app_(app), dir_(dir), mfibDir_(mfibDir), mfibPondDir_(mfibPondDirFactory(Gant::Name(app))), loop_(loop),
      options_(options) {
   dir_->entryIs(Gant::Name(app), mfibDir_);
}

MfibDirWriter::~MfibDirWriter() = default;

void MfibDirWriter::handleInitialized() {
   FLASHLOG(trace, 9, "void Pond::Multicast::Fib::MfibDirWriter::handleInitialized() for app ", app_);
   mfibDir_->dirCollIs(L3::defaultVrfName());
   FLASHLOG(trace, 8, "Created directory collection for default vrf ", L3::defaultVrfName().str());
   initialized_ = true;
}

Gant::Ptr<MfibDirColl> MfibDirWriter::dirCollIs(const L3::VrfName& vrf) {
   if (Gant::Ptr<MfibDirColl> c = mfibDir_->dirColl(vrf)) return c;
   Gant::Ptr<MfibDirColl> c = mfibDir_->dirCollIs(vrf);
   FLASHLOG(trace, 8, "Created directory collection for vrf ", vrf.str());
   return c;
}

Gant::Ptr<Status> MfibDirWriter::doAddPond(const L3::VrfName& vrf, const Gant::String& url) {
   FLASHLOG(trace, 9, "Gant::Ptr<Pond::Multicast::Fib::Status> Pond::Multicast::Fib::MfibDirWriter::doAddPond(", vrf.str(),
            ", ", url, ") for app ", app_);
   GANT_ASSERT_TEXT(!url.empty(), "pondUrl.size()");
   Gant::Ptr<Status>& status = ponds_[url];
   if (!status) {
      status = statusFactory(Gant::Name(app_));
      status->openWriter(url, loop_, options_);
   }
   FLASHLOG(trace, 8, "Mounted ", url);
   Gant::Ptr<MfibPondColl> coll = mfibPondDir_->pondColl(vrf);
   if (!coll) {
      coll = mfibPondDir_->pondCollIs(vrf);
      FLASHLOG(trace, 8, "Created Ponded directory collection for vrf ", vrf.str());
   }
   Gant::Ptr<MfibDirColl> dirColl = dirCollIs(vrf);
   coll->pondPtrIs(status.ptr(), Gant::PtrConst<Status>(status.ptr()));
   dirColl->pondUrlIs(url);
   FLASHLOG(trace, 8, "Added url ", url, " into mfibDir collection");
   return status;
}

void MfibDirWriter::doDelPond(const L3::VrfName& vrf, const Gant::String& url) {
   FLASHLOG(trace, 9, "void Pond::Multicast::Fib::MfibDirWriter::doDelPond(", vrf.str(), ", ", url, ") for app ",
            app_);
   auto it = ponds_.find(url);
   Gant::Ptr<MfibPondColl> coll = mfibPondDir_->pondColl(vrf);
   if (it != ponds_.end()) {
      if (coll) coll->pondPtrDel(it->second.ptr());
      it->second->tableWriter()->unlink();
      ponds_.erase(it);
      FLASHLOG(trace, 8, "Unmounted ", url);
   }
   if (coll && coll->pondPtrSize() == 0) {
      mfibPondDir_->pondCollDel(vrf);
      FLASHLOG(trace, 8, "Deleted Ponded directory collection for vrf ", vrf.str());
   }
   // The default VRF's collection stays for the writer's whole life.
   if (vrf != L3::defaultVrfName() && mfibDir_->dirCollHas(vrf)) {
      mfibDir_->dirCollDel(vrf);
      FLASHLOG(trace, 8, "Deleted directory collection for vrf ", vrf.str());
   }
}

Gant::Ptr<BitMapper::PondStatus> MfibDirWriter::doAddBitMapperPond(const L3::VrfName& vrf, const Gant::String& url) {
   FLASHLOG(trace, 9, "Gant::Ptr<BitMapper::PondStatus> Pond::Multicast::Fib::MfibDirWriter::doAddBitMapperPond(",
            vrf.str(), ", ", url, ") for app ", app_);
   Gant::Ptr<BitMapper::PondStatus>& table = bitMapperPonds_[url];
   if (!table) {
      table = BitMapper::pondStatusFactory(Gant::Name(app_));
      table->openAllocatorTable(url, loop_, options_);
   }
   dirCollIs(vrf)->bitMapperPondUrlIs(url);
   FLASHLOG(trace, 8, "Added bitmapper url ", url, " into mfibDir collection");
   return table;
}

void MfibDirWriter::doDelBitMapperPond(const L3::VrfName& vrf, const Gant::String& url) {
   FLASHLOG(trace, 9, "void Pond::Multicast::Fib::MfibDirWriter::doDelBitMapperPond(", vrf.str(), ", ", url,
            ") for app ", app_);
   if (auto it = bitMapperPonds_.find(url); it != bitMapperPonds_.end()) {
      it->second->tableWriter()->unlink();
      bitMapperPonds_.erase(it);
   }
   if (Gant::Ptr<MfibDirColl> c = mfibDir_->dirColl(vrf)) c->bitMapperPondUrlIs("");
   FLASHLOG(trace, 8, "Deleted url ", url, " from mfibDir collection");
}

Gant::Ptr<Status> MfibDirWriter::mfibPond(const Gant::String& url) const {
   auto it = ponds_.find(url);
   return it == ponds_.end() ? nullptr : it->second;
}

Gant::Ptr<BitMapper::PondStatus> MfibDirWriter::mfibBitMapperPond(const Gant::String& url) const {
   auto it = bitMapperPonds_.find(url);
   return it == bitMapperPonds_.end() ? nullptr : it->second;
}

} // namespace Pond::Multicast::Fib
