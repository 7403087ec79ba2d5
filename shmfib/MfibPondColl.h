#pragma once
// The producers' route tables of one VRF, as a reader merges them: for each
// key, the route of highest priority is in force. A priority of 0 never is
// (the comparison is strict from 0), a route equal to the default Route(key)
// counts as absent, and among equal priorities the table entered first
// stays in force: tables are kept in the order they were entered.
#include "shmfib/RouteTable.h"
#include "gant/AttrLog.h"
#include "gant/Entity.h"

#include <utility>
#include <vector>

namespace Pond::Multicast::Fib {

using Routing::Multicast::Fib::IpGenRouteKey;

class MfibPondColl : public Gant::Entity {
 public:
   class Reactor : public Gant::Reactor {
    public:
      explicit Reactor(MfibPondColl* c = nullptr) { attachTo(c); }
      MfibPondColl* notifier() const noexcept { return static_cast<MfibPondColl*>(entity()); }
      void notifierIs(MfibPondColl* c) { attachTo(c); }
      // A table was entered, replaced or removed.
      virtual void onPondPtr(const Status*) {}
   };
   using Tables = std::vector<std::pair<const Status*, Gant::PtrConst<Status>>>;

   explicit MfibPondColl(const L3::VrfName& vrfName) : Entity(Gant::keyName(vrfName)), vrfName_(vrfName) {}
   ~MfibPondColl() override;
   const L3::VrfName& vrfName() const noexcept { return vrfName_; }

   // In the order entered.
   const Tables& pondPtr() const noexcept { return tables_; }
   Gant::PtrConst<Status> pondPtr(const Status* key) const;
   std::size_t pondPtrSize() const noexcept { return tables_.size(); }
   void pondPtrIs(const Status* key, const Gant::PtrConst<Status>& table);
   void pondPtrDel(const Status* key);
   void pondPtrDelAll();
   void pondPtrNotify(const Status* key) { notify(&Reactor::onPondPtr, key); }

   // The table whose route is in force for key, or null.
   const Status* pondKey(const IpGenRouteKey& key) const { return best(key, nullptr).first; }
   Gant::PtrConst<Status> mfibPond(const IpGenRouteKey& key) const { return pondPtr(pondKey(key)); }
   bool isBestRoute(const Status* table, const IpGenRouteKey& key) const { return table && pondKey(key) == table; }
   // The route in force, or Route(key) when no table has one.
   Route route(const IpGenRouteKey& key) const;
   // Both at once: the table in force (or null), its route in `out`.
   const Status* routeInForce(const IpGenRouteKey& key, Route& out) const {
      auto [table, route] = best(key, nullptr);
      out = route;
      return table;
   }
   // The table that would be in force without `excluded`.
   const Status* nextBestPond(const Status* excluded, const IpGenRouteKey& key) const {
      return best(key, excluded).first;
   }
   // The number of keys the merged walk yields.
   uint32_t routes() const;
   // The route a table holds for key when it counts: found, whole and not
   // the default route. Corruption counts as absent (the table's reader
   // reports it to the table's watchers).
   static bool holds(const Status& table, const IpGenRouteKey& key, Route& out);
   // Whether a route read from a table counts (is not its key's default).
   static bool counts(const Route& route) {
      // A priority other than the default's settles it without building
      // and comparing the whole default.
      return route.routePriority() != defaultPriority() || !(route == Route(route.key()));
   }
   static RoutePriority defaultPriority() {
      static const RoutePriority p = Route().routePriority();
      return p;
   }

   const Gant::TypeInfo& typeInfo() const noexcept override { return gantTypeInfo(); }
   static const Gant::TypeInfo& gantTypeInfo();
   static constexpr const char* gantTypeName = "Pond::Multicast::Fib::MfibPondColl";
   // The tables are this process's mounts: the attribute log holds none.
   void gantLogWrite(Gant::LogWriter&) const {}
   void gantLogApply(Gant::LogReader&) {}

 private:
   std::pair<const Status*, Route> best(const IpGenRouteKey& key, const Status* excluded) const;

   L3::VrfName vrfName_;
   Tables tables_;
};

Gant::Ptr<MfibPondColl> mfibPondCollFactory(const L3::VrfName& vrfName);

// The merged view: each key once, with the table in force and its route.
// Walks the tables one after another, each from its own position, and
// stops on an entry only where its table is the one in force for the key.
class MfibPondCollRouteIteratorConst {
 public:
   explicit MfibPondCollRouteIteratorConst(const Gant::PtrConst<MfibPondColl>& coll);
   explicit operator bool() const noexcept { return table_ < coll_->pondPtr().size(); }
   MfibPondCollRouteIteratorConst& operator++();
   const Status* pondKey() const { return coll_->pondPtr()[table_].first; }
   const IpGenRouteKey& key() const noexcept { return route_.key(); }
   const Route& route() const noexcept { return route_; }

 private:
   // Moves on from the current position to the next entry in force.
   void updateToBestRouteIterators();

   Gant::PtrConst<MfibPondColl> coll_;
   std::size_t table_ = 0;
   uint32_t slot_ = 0;
   Route route_;
};

} // namespace Pond::Multicast::Fib
