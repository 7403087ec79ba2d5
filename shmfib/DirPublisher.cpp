#include "shmfib/DirPublisher.h"

#include "flashlog/Flashlog.h"

namespace Pond::Multicast::Fib {

namespace {
Flashlog::Handle& trace = Flashlog::handle("Mroute::MfibPond");
}

MfibDirPublisher::MfibDirPublisher(Pakto::AddressFamily af, const Gant::String& app, const Gant::Ptr<MfibDir>& dir,
                                   Loop::EventLoop* loop, const Pond::Options& options)
    : dir_(dir), table_(mfibDirTableFactory(Gant::Name(app))), dirReactor_(*this, dir.ptr()) {
   // Rows a previous run of this producer left stay until it says otherwise:
   // readers keep its routes in force across its restart.
   table_->openWriter(MfibDirTable::mountPath(af, app), loop, options);
   for (const auto& [vrf, coll] : dir_->dirColl()) follow(vrf);
}

MfibDirPublisher::~MfibDirPublisher() = default;

void MfibDirPublisher::follow(const L3::VrfName& vrf) {
   Gant::Ptr<MfibDirColl> coll = dir_->dirColl(vrf);
   if (!coll) {
      colls_.erase(vrf);
      table_->dirCollDel(vrf);
      return;
   }
   auto& r = colls_[vrf];
   if (!r || r->notifier() != coll.ptr()) r = std::make_unique<CollReactor>(*this, coll.ptr());
   publish(vrf);
}

void MfibDirPublisher::publish(const L3::VrfName& vrf) {
   Gant::Ptr<MfibDirColl> coll = dir_->dirColl(vrf);
   if (!coll) return;
   MfibDirEntry row(vrf);
   // A location too long for the row cannot be announced; the producer's
   // own directory still holds it.
   try {
      row.pondUrlIs(TableUrl(coll->pondUrl()));
      row.bitMapperPondUrlIs(TableUrl(coll->bitMapperPondUrl()));
   } catch (const Gant::RangeError& e) {
      FLASHLOG(trace, 1, "MfibDirPublisher: vrf ", vrf.str(), " not announced: ", e.what());
      return;
   }
   table_->dirCollIs(row);
}

void MfibDirPublisher::withdraw() {
   colls_.clear();
   dirReactor_.notifierIs(nullptr);
   table_->dirCollDelAll();
   table_->tableWriter()->unlink();
}

} // namespace Pond::Multicast::Fib
