#pragma once
// Key-ordered indexes kept from change notifications. OrderRouteSm follows
// every producer table of a VRF's MfibPondColl and records, per key of the
// merged view, the table in force; ModalOrderRouteSm follows one table and
// records which keys it holds. Both apply nothing before handleInitialized.
#include "shmfib/MfibPondColl.h"
#include "shmfib/RouteOrdered.h"

#include <map>
#include <memory>
#include <optional>

namespace Pond::Multicast::Fib {

class OrderRouteSm : public Gant::PtrInterface {
 public:
   OrderRouteSm(const Gant::Ptr<MfibPondColl>& coll, const Gant::Ptr<RouteOrderedCollection>& ordered);
   ~OrderRouteSm() override;

   void handleInitialized();
   void handleRouteChanged(const IpGenRouteKey& key);
   bool initialized() const noexcept { return initialized_; }
   const Gant::Ptr<RouteOrderedCollection>& routeOrderedCollection() const noexcept { return ordered_; }

 private:
   // One producer table of the collection. A table's first read (its
   // mount) is weighed once it is complete, in one pass in key order,
   // before anything else runs: not key by key as the read delivers them.
   struct GantMfibPond : Status::Reactor {
      GantMfibPond(OrderRouteSm& sm, Status* t) : Status::Reactor(t), sm(sm), read(!mounting(*t)) {}
      void onRoute(const IpGenRouteKey& key) override {
         if (read || !sm.initialized_) sm.handleRouteChangedIn(notifier(), key);
      }
      void onTableStatus() override;
      void handleInitialize();
      static bool mounting(const Status& t) { return t.isReader() && !t.tableReady(); }
      OrderRouteSm& sm;
      bool read; // false while its first read goes on
   };
   // The collection: tables coming and going.
   struct GantPondColl : MfibPondColl::Reactor {
      GantPondColl(OrderRouteSm& sm, MfibPondColl* c) : MfibPondColl::Reactor(c), sm(sm) {}
      void onPondPtr(const Status* table) override;
      OrderRouteSm& sm;
   };

   // handleRouteChanged for a change heard from one table.
   void handleRouteChangedIn(const Status* table, const IpGenRouteKey& key);
   // The same, given the priority of the route the table holds, or none
   // when the table holds none that counts.
   void weigh(const Status* table, const IpGenRouteKey& key, std::optional<uint32_t> mine) {
      weigh(table, key, mine, ordered_->route(key));
   }
   // The same, given the table the ordered index has for the key, or null.
   void weigh(const Status* table, const IpGenRouteKey& key, std::optional<uint32_t> mine, const Status* inForce);
   // Every route of a table, in key order.
   void weighAll(const Status* table);
   // Steps 2 and 3 of a change: the key set to its table in force, or deleted.
   void apply(const IpGenRouteKey& key) { apply(key, ordered_->route(key)); }
   void apply(const IpGenRouteKey& key, const Status* indexed);
   void mfibPondIs(const Status* table);
   void mfibPondDel(const Status* table);

   Gant::Ptr<MfibPondColl> coll_;
   Gant::Ptr<RouteOrderedCollection> ordered_;
   GantPondColl collReactor_;
   std::map<const Status*, std::unique_ptr<GantMfibPond>> ponds_;
   bool initialized_ = false;
};

class ModalOrderRouteSm : public Gant::PtrInterface {
 public:
   ModalOrderRouteSm(const Gant::Ptr<Status>& table, const Gant::Ptr<ModalRouteOrderedCollection>& ordered);

   void handleInitialized();
   void handleRouteChanged(const IpGenRouteKey& key);
   bool initialized() const noexcept { return initialized_; }

 private:
   struct GantMfibPond : Status::Reactor {
      GantMfibPond(ModalOrderRouteSm& sm, Status* t) : Status::Reactor(t), sm(sm) {}
      void onRoute(const IpGenRouteKey& key) override { sm.handleRouteChanged(key); }
      ModalOrderRouteSm& sm;
   };

   Gant::Ptr<Status> table_;
   Gant::Ptr<ModalRouteOrderedCollection> ordered_;
   GantMfibPond reactor_;
   bool initialized_ = false;
};

} // namespace Pond::Multicast::Fib
