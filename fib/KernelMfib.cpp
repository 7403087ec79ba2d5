#include "fib/KernelMfib.h"

namespace Routing::KernelMfib {

void StatusColl::doInit() { vrfStatusIs(L3::VrfName("default")); }

} // namespace Routing::KernelMfib
