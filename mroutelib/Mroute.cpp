// Routes, boundary routes and their tables: the fastdrop sums and the VLAN
// filter summary, each kept by delta in the child's handler, never by a walk.
#include "mroutelib/Mroute.h"

#include "flashlog/Flashlog.h"

namespace MrouteLib {

namespace {
Flashlog::Handle& trace = Flashlog::handle("MrouteLib");

// The fastdrop collection's Is: a null set removes, an unchanged one does
// nothing. True when the collection changed.
bool storeFastdrop(Gant::OrderedMap<Bridging::VlanId, Gant::Ptr<OifSet>>& fastdrop, Bridging::VlanId vlan,
                   const Gant::Ptr<OifSet>& oifSet) {
   auto it = fastdrop.find(vlan);
   if (it == fastdrop.end()) {
      if (!oifSet) return false;
      fastdrop.emplace(vlan, oifSet);
   } else if (it->second == oifSet) {
      return false;
   } else if (!oifSet) {
      fastdrop.erase(it);
   } else {
      it->second = oifSet;
   }
   return true;
}
} // namespace

// ---- Mroute

void Mroute::fastdropIs(Bridging::VlanId vlan, const Gant::Ptr<OifSet>& oifSet) {
   if (!storeFastdrop(fastdrop_, vlan, oifSet)) return;
   handleFastdrop(vlan);
   fastdropNotify(vlan);
}

void Mroute::fastdropDel(Bridging::VlanId vlan) {
   if (!fastdrop_.erase(vlan)) return;
   handleFastdrop(vlan);
   fastdropNotify(vlan);
}

void Mroute::handleFastdrop(Bridging::VlanId) {
   FLASHLOG(trace, 9, "void MrouteLib::Mroute::handleFastdrop(Bridging::VlanId)");
   handleFastdrop();
}

// Takes this route's old share out of the table's sum and puts the new one in.
void Mroute::handleFastdrop() {
   FLASHLOG(trace, 9, "void MrouteLib::Mroute::handleFastdrop()");
   if (!mrouteTable_) return;
   mrouteTable_->fastdropCountDec(fastdropCount_);
   fastdropCountIs(static_cast<uint16_t>(fastdrop_.size()));
   mrouteTable_->fastdropCountInc(fastdropCount_);
   fastdropDirtyIs(true);
}

// Silent per member: one handleFastdrop for the lot.
void Mroute::doClearFastdrop() {
   FLASHLOG(trace, 9, "void MrouteLib::Mroute::doClearFastdrop()");
   fastdrop_.clear();
   rpfFailureCount_.clear();
   handleFastdrop();
}

void Mroute::handleDel() {
   FLASHLOG(trace, 9, "void MrouteLib::Mroute::handleDel()");
   doClearFastdrop();
}

// ---- BoundaryMroute: no per-VLAN handler, clearing notifies per member,
// and no deletion handler (its share stays counted unless cleared first).

void BoundaryMroute::fastdropIs(Bridging::VlanId vlan, const Gant::Ptr<OifSet>& oifSet) {
   if (!storeFastdrop(fastdrop_, vlan, oifSet)) return;
   handleFastdrop();
   fastdropNotify(vlan);
}

void BoundaryMroute::fastdropDel(Bridging::VlanId vlan) {
   if (!fastdrop_.erase(vlan)) return;
   handleFastdrop();
   fastdropNotify(vlan);
}

void BoundaryMroute::handleFastdrop() {
   FLASHLOG(trace, 9, "void MrouteLib::BoundaryMroute::handleFastdrop()");
   if (!mrouteTable_) {
      FLASHLOG(trace, 9, "mrt is NULL");
      return;
   }
   FLASHLOG(trace, 9, "fastdropCount: ", fastdropCount_, ", total fastdrops: ", fastdrop_.size());
   mrouteTable_->boundaryFastdropCountDec(fastdropCount_);
   fastdropCountIs(static_cast<uint16_t>(fastdrop_.size()));
   mrouteTable_->boundaryFastdropCountInc(fastdropCount_);
   fastdropDirtyIs(true);
}

void BoundaryMroute::doClearFastdrop() {
   FLASHLOG(trace, 9, "void MrouteLib::BoundaryMroute::doClearFastdrop()");
   fastdropDelAll();
   handleFastdrop();
}

// ---- MrouteTable

void MrouteTable::handleInitialized() { GANT_ASSERT(!initialized()); }

// The routes go while the counters they take their share out of are there.
void MrouteTable::releaseRoutes() {
   for (auto& [key, route] : mroute_) route->parentIs(nullptr);
   mroute_.clear();
   for (auto& [key, route] : boundaryMroute_) route->parentIs(nullptr);
   boundaryMroute_.clear();
}

Gant::Ptr<DirtyInfo> MrouteTable::dirtyInfoIs() {
   if (!dirtyInfo_) {
      Gant::Ptr<DirtyInfo> info = dirtyInfoFactory();
      info->parentIs(this);
      dirtyInfoIs(info);
   }
   return dirtyInfo_;
}

Gant::Ptr<DirtyInfo> MrouteTable::boundaryDirtyInfoIs() {
   if (!boundaryDirtyInfo_) {
      Gant::Ptr<DirtyInfo> info = dirtyInfoFactory();
      info->parentIs(this);
      boundaryDirtyInfoIs(info);
   }
   return boundaryDirtyInfo_;
}

void MrouteTable::doUpdateVrfVlanFilter(uint32_t mrtVlanFilter, uint32_t chgMrtVlanFilter) {
   FLASHLOG(trace, 9, "void MrouteLib::MrouteTable::doUpdateVrfVlanFilter(U32, U32)", " ( ", std::hex,
            mrtVlanFilter, ", ", chgMrtVlanFilter, " )");
   if (chgMrtVlanFilter == 0) {
      FLASHLOG(trace, 8, "   No change");
      return;
   }
   for (uint8_t b = 0; b < 32; ++b) {
      const uint32_t bit = uint32_t{1} << b;
      if (!(chgMrtVlanFilter & bit)) continue;
      if (mrtVlanFilter & bit) {
         vlanFilterCounterInc(b, 1);
         FLASHLOG(trace, 8, "  Incrementing count for bit ", unsigned{b}, " now: ", vlanFilterCounter(b));
      } else {
         vlanFilterCounterDec(b, 1);
         FLASHLOG(trace, 8, "  Decrementing count for bit ", unsigned{b}, " now: ", vlanFilterCounter(b));
      }
      FLASHLOG(trace, 8, "  oldVlanFilter: ", std::hex, vlanFilter_);
      vlanFilterIs(vlanFilterCounter(b) ? (vlanFilter_ | bit) : (vlanFilter_ & ~bit));
      FLASHLOG(trace, 8, "  newVlanFilter: ", std::hex, vlanFilter_);
   }
}

// ---- MrouteTableColl

// The tables (and with them routes and OifSets) go while the registry the
// OifSets leave is there.
void MrouteTableColl::releaseTables() {
   for (auto& [vrf, table] : vrfMrouteTable_) table->parentIs(nullptr);
   vrfMrouteTable_.clear();
   if (l2FloodsetTable_) l2FloodsetTable_->parentIs(nullptr);
   l2FloodsetTable_ = nullptr;
}

Gant::Ptr<MrouteTable> MrouteTableColl::l2FloodsetTableIs(const L3::VrfName& vrfName) {
   if (!l2FloodsetTable_) {
      Gant::Ptr<MrouteTable> table = mrouteTableFactory(vrfName);
      table->parentIs(this);
      l2FloodsetTableIs(table);
   }
   return l2FloodsetTable_;
}

void MrouteTableColl::l2FloodsetTableDel() {
   if (l2FloodsetTable_) l2FloodsetTable_->parentIs(nullptr);
   l2FloodsetTableIs(Gant::Ptr<MrouteTable>());
}

} // namespace MrouteLib
