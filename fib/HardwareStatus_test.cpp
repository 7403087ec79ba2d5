#include "fib/HardwareStatus.h"

#include <gtest/gtest.h>

namespace {

using namespace Routing::Multicast::Fib;

IpGenRouteKey route(uint32_t n) {
   return makeRouteKeyMroute(Pakto::Prefix(Pakto::IpAddr::fromHost(0x0a000000 + n), 32),
                             Gant::fromText<Pakto::Prefix>("239.1.1.1/32"));
}

TEST(FibHardwareStatus, RoutesSumsOverVrfs) {
   auto s = Hardware::statusFactory("status");
   auto red = s->vrfStatusIs(L3::VrfName("red"));
   auto blue = s->vrfStatusIs(L3::VrfName("blue"));
   for (uint32_t n = 0; n < 3; ++n) red->routeIs(route(n));
   blue->routeIs(route(1));
   red->routeIs(route(1)); // already there
   EXPECT_EQ(s->routes(), 4u);
   EXPECT_EQ(red->vrfName(), L3::VrfName("red"));
}

} // namespace
