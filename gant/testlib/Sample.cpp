// The hand-written operations of the sample schema.
#include "gant/testlib/Sample.h"

namespace Gant::Sample {
bool Root::isQuiet() const { return !enabled(); }
void Root::doInit() { tagIs(Pakto::IntfId()); }
} // namespace Gant::Sample
