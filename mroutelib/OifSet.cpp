// The life of a shared outgoing-interface set in its collection's registry.
#include "mroutelib/Mroute.h"

#include "flashlog/Flashlog.h"

namespace MrouteLib {

namespace {
Flashlog::Handle& trace = Flashlog::handle("MrouteLib");
} // namespace

void OifSet::handleInitialized() {
   FLASHLOG(trace, 9, "void MrouteLib::OifSet::handleInitialized()", " ", Gant::toText(portVlanSet_));
   GANT_ASSERT(!initialized());
   initializedIs(true);
   // One live set per value: callers look the registry up before making one.
   GANT_ASSERT(!mrouteTable_->oifSetHas( portVlanSet() ));
   mrouteTable_->oifSetIs(portVlanSet_, OifSetPtr(this));
}

// By key alone: handleInitialized made sure the entry is this set's.
void OifSet::handleDel() {
   FLASHLOG(trace, 9, "void MrouteLib::OifSet::handleDel()", " ", Gant::toText(portVlanSet_));
   if (mrouteTable_->oifSetSize() != 0) mrouteTable_->oifSetDel(portVlanSet_);
}

void MrouteTableColl::oifSetIs(const PortVlanSet& set, const OifSetPtr& ptr) {
   if (Gant::mapSet(oifSet_, set, ptr)) oifSetNotify(set);
}

OifSetPtr MrouteTableColl::oifSetDel(const PortVlanSet& set) {
   auto it = oifSet_.find(set);
   if (it == oifSet_.end()) return OifSetPtr();
   const OifSetPtr old = it->second;
   oifSet_.erase(it);
   oifSetNotify(set);
   return old;
}

Gant::Ptr<OifSet> oifSetFactory(MrouteTableColl* mrouteTable, const PortVlanSet& portVlanSet) {
   return oifSetFactory(portVlanSet, mrouteTable);
}

Gant::Ptr<OifSet> oifSetFindOrMake(MrouteTableColl* mrouteTable, const PortVlanSet& portVlanSet) {
   auto it = mrouteTable->oifSet().find(portVlanSet);
   if (it != mrouteTable->oifSet().end()) return Gant::Ptr<OifSet>(it->second.ptr());
   return oifSetFactory(mrouteTable, portVlanSet);
}

} // namespace MrouteLib
