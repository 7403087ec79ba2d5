#include "pakto/Pam.h"

namespace Pakto {

void Pam::doGetRxPkt() {}
void Pam::optionsIs(uint32_t) {}
void Pam::enabledIs(bool) {}

Gant::Ptr<Pkt> Pam::nextRxPkt() {
   // rxPkt is left empty first, so a read that finds nothing returns null.
   rxPktIs(nullptr);
   doGetRxPkt();
   return rxPkt();
}

} // namespace Pakto
