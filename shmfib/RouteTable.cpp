#include "shmfib/RouteTable.h"

#include "gant/Assert.h"

namespace Pond::Multicast::Fib {

Gant::String Status::mountPath(Pakto::AddressFamily af, const L3::VrfName& vrf, const Gant::String& name) {
   Gant::String base;
   if (af == Pakto::AddressFamily::ipv4) base = "routing/multicast/routestatus/";
   else if (af == Pakto::AddressFamily::ipv6) base = "routing6/multicast/routestatus/";
   else GANT_ASSERT_TEXT(false, "Unsupported address family");
   base += vrf.str();
   base += '/';
   base += name;
   return base;
}

namespace TableInfo {

Pond::TableShape mfibMountInfo(const Gant::String& type) {
   GANT_ASSERT(type == Status::gantTypeName);
   return Status::tableShape();
}

} // namespace TableInfo
} // namespace Pond::Multicast::Fib
