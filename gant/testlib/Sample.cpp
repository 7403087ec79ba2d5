// The hand-written operations of the sample schema.
#include "gant/testlib/Sample.h"

namespace Gant::Sample {
bool Root::isQuiet() const { return !enabled(); }
void Root::doInit() { tagIs(Pakto::IntfId()); }

void Twig::gateIs(uint32_t k, uint32_t v) {
   if (v == 0) return gateDel(k);
   if (Gant::mapSet(gate_, k, v)) gateNotify(k);
}

// Counts its removals in sap, so a test sees that gateDelAll came through here.
void Twig::gateDel(uint32_t k) {
   if (!gate_.erase(k)) return;
   sapIs(sap() + 1);
   gateNotify(k);
}
} // namespace Gant::Sample
