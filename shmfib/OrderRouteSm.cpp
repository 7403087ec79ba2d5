#include "shmfib/OrderRouteSm.h"

#include "flashlog/Flashlog.h"

#include <algorithm>
#include <vector>

namespace Pond::Multicast::Fib {

namespace {
Flashlog::Handle& trace = Flashlog::handle("Mroute::MfibPond");

void routeTrace(const char* what, const IpGenRouteKey& key) {
   FLASHLOG(trace, 8, what, " for key (s: ", key.s(), " g: ", key.g(), ")");
}
} // namespace

OrderRouteSm::OrderRouteSm(const Gant::Ptr<MfibPondColl>& coll, const Gant::Ptr<RouteOrderedCollection>& ordered)
    : coll_(coll), ordered_(ordered), collReactor_(*this, coll.ptr()) {
   for (const auto& [key, table] : coll_->pondPtr()) mfibPondIs(key);
}

OrderRouteSm::~OrderRouteSm() = default;

void OrderRouteSm::handleInitialized() {
   FLASHLOG(trace, 9, "void Pond::Multicast::Fib::OrderRouteSm::handleInitialized()");
   FLASHLOG(trace, 8, "Initializing OrderRouteSm");
   for (MfibPondCollRouteIteratorConst it(coll_); it; ++it) ordered_->routeIs(it.key(), it.pondKey());
   initialized_ = true;
   FLASHLOG(trace, 8, "Initialized OrderRouteSm");
}

void OrderRouteSm::handleRouteChanged(const IpGenRouteKey& key) {
   FLASHLOG(trace, 9, "void Pond::Multicast::Fib::OrderRouteSm::handleRouteChanged(", key.pretty(), ")");
   if (!initialized_) {
      FLASHLOG(trace, 8, "OrderRouteSm Not initialized");
      return;
   }
   apply(key);
}

void OrderRouteSm::apply(const IpGenRouteKey& key, const Status* indexed) {
   const Status* table = coll_->pondKey(key);
   if (!table) {
      routeTrace("Route entry deleted", key);
      ordered_->routeDel(key);
      return;
   }
   if (indexed == table) return;
   routeTrace("Route entry updated", key);
   ordered_->routeIs(key, table);
}

void OrderRouteSm::GantPondColl::onPondPtr(const Status* table) {
   if (notifier()->pondPtr(table)) sm.mfibPondIs(table);
   else sm.mfibPondDel(table);
}

void OrderRouteSm::mfibPondIs(const Status* table) {
   auto& r = ponds_[table];
   if (r) return;
   r = std::make_unique<GantMfibPond>(*this, const_cast<Status*>(table));
   r->handleInitialize();
}

void OrderRouteSm::GantMfibPond::handleInitialize() {
   if (!sm.initialized_) {
      FLASHLOG(trace, 8, "OrderRouteSm Not initialized");
      return;
   }
   sm.weighAll(notifier());
}

void OrderRouteSm::GantMfibPond::onTableStatus() {
   if (read || !notifier()->tableReady()) return;
   read = true;
   if (sm.initialized_) sm.weighAll(notifier());
}

// The table's records are read in slot order (one pass through its
// memory), then weighed in key order: consecutive keys share most of their
// path through the ordered index, which thus stays in cache.
void OrderRouteSm::weighAll(const Status* table) {
   struct Mine {
      IpGenRouteKey key;
      std::optional<uint32_t> priority;
   };
   std::vector<Mine> mine;
   mine.reserve(table->routeSlotsUsed());
   table->routeForEach([&](const Route& r) {
      mine.push_back({r.key(), MfibPondColl::counts(r) ? std::optional(r.routePriority().value()) : std::nullopt});
   });
   std::sort(mine.begin(), mine.end(), [](const Mine& a, const Mine& b) { return a.key < b.key; });
   // The index is walked alongside instead of searched for each key. The
   // position is moved past a key before the key is weighed: weighing
   // inserts or removes that key only, which leaves the position valid.
   const auto& index = ordered_->route();
   auto at = index.begin();
   for (const Mine& m : mine) {
      FLASHLOG(trace, 9, "void Pond::Multicast::Fib::OrderRouteSm::handleRouteChanged(", m.key.pretty(), ")");
      while (at != index.end() && at->first < m.key) ++at;
      const Status* inForce = nullptr;
      if (at != index.end() && at->first == m.key) inForce = (at++)->second;
      weigh(table, m.key, m.priority, inForce);
   }
}

// A change heard from one table: unless that table's route is gone or
// weakened while in force, only it and the table in force can win, so the
// others are not looked at.
void OrderRouteSm::handleRouteChangedIn(const Status* table, const IpGenRouteKey& key) {
   if (!initialized_) return handleRouteChanged(key);
   FLASHLOG(trace, 9, "void Pond::Multicast::Fib::OrderRouteSm::handleRouteChanged(", key.pretty(), ")");
   Route mine;
   weigh(table, key, MfibPondColl::holds(*table, key, mine) ? std::optional(mine.routePriority().value()) : std::nullopt);
}

void OrderRouteSm::weigh(const Status* table, const IpGenRouteKey& key, std::optional<uint32_t> mine,
                         const Status* inForce) {
   if (!inForce || !mine || *mine == 0) return apply(key, inForce);
   Route theirs;
   if (inForce == table || !MfibPondColl::holds(*inForce, key, theirs)) return apply(key, inForce);
   const uint32_t a = *mine, b = theirs.routePriority().value();
   if (a < b) return;
   if (a == b) {
      // Equal: the table entered first stays.
      for (const auto& [t, ptr] : coll_->pondPtr()) {
         if (t == inForce) return;
         if (t == table) break;
      }
   }
   routeTrace("Route entry updated", key);
   ordered_->routeIs(key, table);
}

// A table that leaves: each key it was in force for goes to the next
// table in force, or away.
void OrderRouteSm::mfibPondDel(const Status* table) {
   ponds_.erase(table);
   if (!initialized_) return;
   std::vector<IpGenRouteKey> keys;
   for (const auto& [key, inForce] : ordered_->route())
      if (inForce == table) keys.push_back(key);
   for (const IpGenRouteKey& key : keys) handleRouteChanged(key);
}

// ---- one table ------------------------------------------------------------------

ModalOrderRouteSm::ModalOrderRouteSm(const Gant::Ptr<Status>& table,
                                     const Gant::Ptr<ModalRouteOrderedCollection>& ordered)
    : table_(table), ordered_(ordered), reactor_(*this, table.ptr()) {}

void ModalOrderRouteSm::handleInitialized() {
   FLASHLOG(trace, 9, "void Pond::Multicast::Fib::ModalOrderRouteSm::handleInitialized()");
   FLASHLOG(trace, 8, "Initializing ModalOrderRouteSm");
   table_->routeForEach([&](const Route& r) {
      if (!(r == Route(r.key()))) ordered_->routeIs(r.key(), true);
   });
   initialized_ = true;
   FLASHLOG(trace, 8, "Initialized ModalOrderRouteSm");
}

void ModalOrderRouteSm::handleRouteChanged(const IpGenRouteKey& key) {
   FLASHLOG(trace, 9, "void Pond::Multicast::Fib::ModalOrderRouteSm::handleRouteChanged(", key.pretty(), ")");
   if (!initialized_) {
      FLASHLOG(trace, 8, "ModalOrderRouteSm not initialized");
      return;
   }
   Route r;
   if (!MfibPondColl::holds(*table_, key, r)) {
      routeTrace("Route entry deleted", key);
      ordered_->routeDel(key);
      return;
   }
   if (ordered_->routeHas(key)) return;
   routeTrace("Route entry added", key);
   ordered_->routeIs(key, true);
}

} // namespace Pond::Multicast::Fib
