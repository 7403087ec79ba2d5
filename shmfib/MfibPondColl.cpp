#include "shmfib/MfibPondColl.h"

#include "flashlog/Flashlog.h"
#include "gant/TypeInfo.h"

#include <algorithm>

namespace Pond::Multicast::Fib {

namespace {
Flashlog::Handle& iterTrace = Flashlog::handle("MfibPondCollRouteIterator");
}

MfibPondColl::~MfibPondColl() = default;

Gant::PtrConst<Status> MfibPondColl::pondPtr(const Status* key) const {
   for (const auto& [k, t] : tables_)
      if (k == key) return t;
   return nullptr;
}

void MfibPondColl::pondPtrIs(const Status* key, const Gant::PtrConst<Status>& table) {
   auto it = std::find_if(tables_.begin(), tables_.end(), [&](const auto& e) { return e.first == key; });
   if (it != tables_.end()) {
      if (it->second == table) return;
      it->second = table;
   } else {
      tables_.emplace_back(key, table);
   }
   notify(&Reactor::onPondPtr, key);
}

void MfibPondColl::pondPtrDel(const Status* key) {
   auto it = std::find_if(tables_.begin(), tables_.end(), [&](const auto& e) { return e.first == key; });
   if (it == tables_.end()) return;
   tables_.erase(it);
   notify(&Reactor::onPondPtr, key);
}

void MfibPondColl::pondPtrDelAll() {
   while (!tables_.empty()) pondPtrDel(tables_.back().first);
}

bool MfibPondColl::holds(const Status& table, const IpGenRouteKey& key, Route& out) {
   const Pond::Found<Route> f = table.route(key);
   if (f.status != Pond::ReadStatus::found) return false;
   out = *f;
   return counts(out);
}

std::pair<const Status*, Route> MfibPondColl::best(const IpGenRouteKey& key, const Status* excluded) const {
   // The priority is looked at first: a route that cannot win is neither
   // copied nor compared whole with the default.
   std::pair<const Status*, Route> best{nullptr, Route(key)};
   uint32_t bestPriority = 0;
   if (tables_.size() > 1) {
      // Every table's probe started before any is waited on.
      const uint32_t hash = Gant::hashOf(key);
      for (const auto& [k, t] : tables_) t->routeView().prefetchIndex(hash);
      for (const auto& [k, t] : tables_) t->routeView().prefetchRecord(hash);
   }
   for (const auto& [k, t] : tables_) {
      if (k == excluded) continue;
      const Pond::Found<Route> f = t->route(key);
      if (f.status != Pond::ReadStatus::found || f->routePriority().value() <= bestPriority) continue;
      if (!counts(*f)) continue;
      bestPriority = f->routePriority().value();
      best.first = k;
      best.second = *f;
   }
   return best;
}

Route MfibPondColl::route(const IpGenRouteKey& key) const { return best(key, nullptr).second; }

uint32_t MfibPondColl::routes() const {
   uint32_t n = 0;
   for (MfibPondCollRouteIteratorConst it(Gant::PtrConst<MfibPondColl>(this)); it; ++it) ++n;
   return n;
}

const Gant::TypeInfo& MfibPondColl::gantTypeInfo() {
   static const Gant::AttrInfo attrs[] = {
       {"vrfName", Gant::AttrKind::key, "L3::VrfName",
        [](const void* o) -> Gant::GenericValue {
           return static_cast<const MfibPondColl*>(static_cast<const Gant::Entity*>(o))->name();
        },
        nullptr, nullptr},
       {"pondPtr", Gant::AttrKind::collection, "Pond::Multicast::Fib::Status",
        [](const void* o) -> Gant::GenericValue {
           const auto* c = static_cast<const MfibPondColl*>(static_cast<const Gant::Entity*>(o));
           Gant::CollectionSnapshot s;
           s.size = c->pondPtr().size();
           s.text = "{";
           for (const auto& [k, t] : c->pondPtr()) {
              if (s.text.size() > 1) s.text += ", ";
              Gant::quote(s.text, t->name());
           }
           s.text += "}";
           return s;
        },
        nullptr, nullptr},
   };
   static const Gant::TypeInfo info{gantTypeName, attrs, [](std::string_view name) -> Gant::Ptr<Gant::Entity> {
                                       return mfibPondCollFactory(L3::VrfName(name));
                                    }};
   return info;
}

static const Gant::TypeRegistration registerMfibPondColl(MfibPondColl::gantTypeInfo());

Gant::Ptr<MfibPondColl> mfibPondCollFactory(const L3::VrfName& vrfName) { return Gant::make<MfibPondColl>(vrfName); }

// ---- the merged walk -----------------------------------------------------------

MfibPondCollRouteIteratorConst::MfibPondCollRouteIteratorConst(const Gant::PtrConst<MfibPondColl>& coll)
    : coll_(coll) {
   updateToBestRouteIterators();
}

MfibPondCollRouteIteratorConst& MfibPondCollRouteIteratorConst::operator++() {
   ++slot_;
   updateToBestRouteIterators();
   return *this;
}

void MfibPondCollRouteIteratorConst::updateToBestRouteIterators() {
   const MfibPondColl::Tables& tables = coll_->pondPtr();
   Route other;
   for (; table_ < tables.size(); ++table_, slot_ = 0) {
      const Status& mine = *tables[table_].second;
      for (const uint32_t used = mine.routeSlotsUsed(); slot_ < used; ++slot_) {
         if (mine.routeAtSlot(slot_, route_) != Pond::ReadStatus::found) continue;
         const IpGenRouteKey& key = route_.key();
         if (route_ == Route(key)) continue;
         const uint32_t priority = route_.routePriority().value();
         FLASHLOG(iterTrace, 8, "Pond Key= ", static_cast<const void*>(&mine));
         FLASHLOG(iterTrace, 8, "Route Key= ", key.pretty());
         FLASHLOG(iterTrace, 8, "My priority= ", priority);
         // Priority 0 is never in force; an equal priority met earlier keeps the key.
         bool loses = priority == 0;
         for (std::size_t t = 0; t < tables.size() && !loses; ++t) {
            if (t == table_ || !MfibPondColl::holds(*tables[t].second, key, other)) continue;
            const uint32_t theirs = other.routePriority().value();
            if (theirs > priority || (theirs == priority && t < table_)) {
               FLASHLOG(iterTrace, 8, "Pond Key ", static_cast<const void*>(tables[t].first), " has better priority ",
                        theirs, " for ", key.pretty());
               loses = true;
            }
         }
         if (loses) continue;
         FLASHLOG(iterTrace, 8, "Pond key=", static_cast<const void*>(&mine), ", RouteKey=", key.pretty());
         return;
      }
   }
   FLASHLOG(iterTrace, 8, "Done");
}

} // namespace Pond::Multicast::Fib
