#pragma once
// Port/VLAN sets for tests and benchmarks.
#include "mroutelib/PortVlan.h"

#include <string>

namespace MrouteLib::Test {

inline Pakto::IntfId eth(unsigned n) { return Pakto::IntfId("Ethernet" + std::to_string(n)); }

// Members Ethernet1..n, each in `vlan`.
inline PortVlanSet setOfSize(unsigned n, uint32_t vlan = 10) {
   PortVlanSet s;
   for (unsigned i = 1; i <= n; ++i) s.portVlanIs(PortVlan(eth(i), vlan, 0), true);
   return s;
}

} // namespace MrouteLib::Test
