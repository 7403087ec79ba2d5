#include "shmfib/DirTable.h"

#include "hive/MountPath.h"

namespace Pond::Multicast::Fib {

Gant::String MfibDirTable::mountPath(Pakto::AddressFamily af, const Gant::String& app) {
   return Hive::mountPath(af, "routing/multicast/fibdir/", "routing6/multicast/fibdir/") + app;
}

} // namespace Pond::Multicast::Fib
