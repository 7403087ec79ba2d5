#include "shmfib/RouteIntfIterator.h"

#include "flashlog/Flashlog.h"
#include "gant/Assert.h"

namespace Pond::Multicast::Fib {

namespace {
Flashlog::Handle& trace = Flashlog::handle("Mroute::MfibPond");

IntfFlags flagsOf(bool accept, bool noRpf, bool notify, bool fastdrop, bool frr, bool forward) {
   IntfFlags f;
   f.acceptIs(accept), f.noRpfIs(noRpf), f.notifyIs(notify), f.fastdropIs(fastdrop), f.frrIs(frr), f.forwardIs(forward);
   return f;
}
} // namespace

RouteIntfIteratorConst::RouteIntfIteratorConst(const Gant::PtrConst<Status>& table,
                                               const Routing::Multicast::Fib::IpGenRouteKey& key)
    : table_(table), route_(key) {
   // A route missing, or found corrupt (its table's reader reports that),
   // walks as the empty route.
   if (Pond::Found<Route> f = table_->route(key); f.status == Pond::ReadStatus::found) route_ = *f;
   version_ = route_.version();
}

bool RouteIntfIteratorConst::next() {
   oifIndex_ = OifIndex::null();
   while (named_ < 4) {
      switch (named_++) {
      case 0:
         intfId_ = route_.iif();
         intfFlags_ = flagsOf(true, route_.iifFlags().noRpf(), false, false, false, false);
         break;
      case 1: intfId_ = route_.notify(), intfFlags_ = flagsOf(false, false, true, false, false, false); break;
      case 2: intfId_ = route_.fastdrop(), intfFlags_ = flagsOf(false, false, false, true, false, false); break;
      case 3: intfId_ = route_.iifFrr(), intfFlags_ = flagsOf(false, false, false, false, true, false); break;
      }
      if (intfId_ != Pakto::IntfId()) return true;
   }
   return nextOif();
}

bool RouteIntfIteratorConst::nextOif() {
   while (!oifsDone_) {
      Pond::Found<Route> now = table_->route(route_.key());
      if (now.status != Pond::ReadStatus::found) {
         FLASHLOG(trace, 8, "next", "(): route gone");
         oifsDone_ = true;
         return false;
      }
      const uint32_t version = now->version();
      if (version != version_) {
         FLASHLOG(trace, 8, "next", "(): route version mismatch ", version_, "!=", version);
         oifsDone_ = true;
         return false;
      }
      route_ = *now;
      oif_ = route_.nextOif(oif_);
      if (oif_ == OifIndex::null()) {
         oifsDone_ = true;
         return false;
      }
      if (!translate(oif_, intfId_)) continue;
      intfFlags_ = flagsOf(false, false, true, false, false, true);
      oifIndex_ = oif_;
      return true;
   }
   return false;
}

bool RouteIntfIteratorConst::translate(OifIndex index, Pakto::IntfId& intf) const {
   const Pond::Found<OifIndexIntf> m = table_->oifIndexIntf(index);
   if (m.status != Pond::ReadStatus::found) {
      FLASHLOG(trace, 8, "RouteIntfIterator: missing intf mapping index ", index.value());
      return false;
   }
   const Pakto::IntfId intfId = m->intf();
   GANT_ASSERT(intfId != Pakto::IntfId());
   intf = intfId;
   return true;
}

bool CachedMapRouteIntfIteratorConst::translate(OifIndex index, Pakto::IntfId& intf) const {
   auto it = cache_.find(index);
   if (it == cache_.end()) {
      FLASHLOG(trace, 8, "CachedMapRouteIntfIterator: missing intf mapping from cache: ", index.value());
      return false;
   }
   intf = it->second;
   return true;
}

} // namespace Pond::Multicast::Fib
