#include "fib/PimIntf.h"

namespace Routing::Multicast::Fib::PimIntf {

// Always the IPv4 multicast range, for IPv6 entries too: callers rely on it.
Pakto::IpGenPrefix PrefixRouteInfo::prefixGroup() const { return Gant::fromText<Pakto::IpGenPrefix>("224.0.0.0/4"); }

} // namespace Routing::Multicast::Fib::PimIntf
