#pragma once
// Where an entity published per address family lives in the state tree.
#include "gant/Assert.h"
#include "gant/String.h"
#include "platform/AddressFamily.h"

namespace Hive {

inline Gant::String mountPath(Pakto::AddressFamily af, const char* ipv4Path, const char* ipv6Path) {
   if (af == Pakto::AddressFamily::ipv4) return ipv4Path;
   if (af == Pakto::AddressFamily::ipv6) return ipv6Path;
   GANT_ASSERT(false && "Unsupported address family");
   return {};
}

} // namespace Hive
