#include "shmfib/MfibReader.h"

#include "flashlog/Flashlog.h"

namespace Pond::Multicast::Fib {

namespace {
Flashlog::Handle& trace = Flashlog::handle("Mroute::MfibPond");
}

// One VRF: its ordered index and the watchers of its tables.
struct MfibReader::Vrf {
   // A table's first read is reported once complete, after OrderRouteSm
   // has weighed it whole.
   struct Table : Status::Reactor {
      Table(Vrf& v, Status* t) : Status::Reactor(t), vrf(v), read(!t->isReader() || t->tableReady()) {}
      void onRoute(const IpGenRouteKey& key) override {
         if (read) vrf.changed(key);
      }
      void onTableStatus() override {
         const Status& t = *notifier();
         if (!read && t.tableReady()) {
            read = true;
            if (vrf.reader.onRoute) t.routeForEach([&](const Route& r) { vrf.changed(r.key()); });
         }
         // Traced once per damage met, not at every status change after it.
         if (!t.corruption().empty() && t.corruption() != traced) {
            traced = t.corruption();
            FLASHLOG(trace, 1, "MfibReader: table of ", t.name(), " for VRF ", vrf.name.str(), " is corrupt: ", traced);
         }
         if (vrf.reader.onTableStatus) vrf.reader.onTableStatus(vrf.name, t);
      }
      Vrf& vrf;
      std::string traced;
      bool read;
   };
   struct Tables : MfibPondColl::Reactor {
      Tables(Vrf& v, MfibPondColl* c) : MfibPondColl::Reactor(c), vrf(v) {}
      void onPondPtr(const Status* table) override {
         if (notifier()->pondPtr(table)) vrf.tables.try_emplace(table, vrf, const_cast<Status*>(table));
         else vrf.tables.erase(table);
      }
      Vrf& vrf;
   };
   struct Ordered : RouteOrderedCollection::Reactor {
      Ordered(Vrf& v, RouteOrderedCollection* c) : RouteOrderedCollection::Reactor(c), vrf(v) {}
      void onRoute(const IpGenRouteKey& key) override { vrf.changed(key); }
      Vrf& vrf;
   };

   Vrf(MfibReader& r, const L3::VrfName& n, const Gant::Ptr<MfibPondColl>& coll)
       : reader(r), name(n), ordered(routeOrderedCollectionFactory(Gant::Name(n.str()))), sm(coll, ordered),
         tablesReactor(*this, coll.ptr()), orderedReactor(*this, ordered.ptr()) {
      // OrderRouteSm hears each table first, so the index is up to date
      // when this VRF's watchers report.
      for (const auto& [key, table] : coll->pondPtr()) tablesReactor.onPondPtr(key);
      sm.handleInitialized();
   }
   void changed(const IpGenRouteKey& key) {
      if (reader.onRoute) reader.onRoute(name, key);
   }

   MfibReader& reader;
   L3::VrfName name;
   Gant::Ptr<RouteOrderedCollection> ordered;
   OrderRouteSm sm;
   std::map<const Status*, Table> tables;
   Tables tablesReactor;
   Ordered orderedReactor;
};

MfibReader::MfibReader(Pakto::AddressFamily af, Loop::EventLoop& loop, const Pond::Options& options,
                       const std::string& shmDir)
    : af_(af), watched_(Hive::dirFactory("mfib")), pondDir_(mfibPondDirFactory(Gant::Name("reader"))),
      mirror_(af, watched_, loop, options, shmDir), producersReactor_(*this, mirror_.producers().ptr()),
      pondDirReactor_(*this, pondDir_.ptr()), sm_(mfibDirSmFactory(watched_, pondDir_, loop, options)) {}

MfibReader::~MfibReader() {
   // The ordered indexes go first: re-ordering every key as the tables
   // leave one by one would be work for nothing.
   pondDirReactor_.notifierIs(nullptr);
   vrfs_.clear();
   sm_ = nullptr;
}

void MfibReader::follow(const L3::VrfName& vrf) {
   if (Gant::Ptr<MfibPondColl> coll = pondDir_->pondColl(vrf)) {
      if (!vrfs_.count(vrf)) vrfs_[vrf] = std::make_unique<Vrf>(*this, vrf, coll);
   } else {
      vrfs_.erase(vrf);
   }
}

Gant::Ptr<RouteOrderedCollection> MfibReader::ordered(const L3::VrfName& vrf) const {
   auto it = vrfs_.find(vrf);
   return it == vrfs_.end() ? nullptr : it->second->ordered;
}

bool MfibReader::settled() const {
   if (!mirror_.settled()) return false;
   for (const auto& [vrf, coll] : pondDir_->pondColl())
      for (const auto& [key, table] : coll->pondPtr())
         if (!table->tableReader() || !table->tableReader()->ready()) return false;
   return true;
}

} // namespace Pond::Multicast::Fib
