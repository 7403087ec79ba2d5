#include "fib/HardwareStatus.h"

#include "hive/MountPath.h"
#include "hive/Tree.h"

namespace Routing::Multicast::Fib {

namespace Hardware {

uint32_t Status::routes() const {
   uint32_t total = 0;
   for (const auto& [vrf, status] : vrfStatus()) total += static_cast<uint32_t>(status->routeSize());
   return total;
}

} // namespace Hardware

// The sparse-mode agent owns the bare readiness path; every other agent a
// directory of its own name.
Gant::String ReadyStatus::mountPath(Pakto::AddressFamily af, const Gant::String& name) {
   Gant::String path = Hive::mountPath(af, "routing/multicast/fibready/", "routing6/multicast/fibready/");
   if (name == "sparsemode") path += "status";
   else path += name + "/status";
   return Cell::path(path, 0);
}

} // namespace Routing::Multicast::Fib
