#include "fib/Config.h"

#include <gtest/gtest.h>

#include <map>

namespace {

using namespace Routing::Multicast::Fib;

using Seen = std::map<std::string, int>; // notifications by handler

struct ConfigWatch : Config::Reactor {
   using Config::Reactor::Reactor;
   Seen seen;
   void onRouting() override { ++seen["routing"]; }
   void onCounterRoute(const IpGenRouteKey&) override { ++seen["counterRoute"]; }
};

IpGenRouteKey route(const char* s, const char* g) {
   return makeRouteKeyMroute(Gant::fromText<Pakto::Prefix>(s), Gant::fromText<Pakto::Prefix>(g));
}

TEST(FibConfig, ResetLeavesClearRequestsAndIsDefaultIgnoresThem) {
   auto c = configFactory("red");
   auto k = route("10.0.0.1/32", "239.1.1.1/32");
   c->routingIs(true);
   c->maxFastdropsIs(5);
   c->counterRouteIs(k, true);
   c->clearCounterRouteIs(k, true);
   c->clearFastdropIs(12.5);
   c->clearMfibCountInc(3);
   EXPECT_FALSE(c->isDefault());
   ConfigWatch w(c.ptr());
   c->reset();
   EXPECT_TRUE(c->isDefault());
   EXPECT_EQ(c->counterRouteSize(), 0u);
   EXPECT_TRUE(c->clearCounterRoute(k));
   EXPECT_EQ(c->clearFastdrop(), 12.5);
   EXPECT_EQ(c->clearMfibCount(), 3);
   EXPECT_EQ(w.seen, (Seen{{"routing", 1}, {"counterRoute", 1}}));

   auto root = vrfConfigFactory("ipv4");
   root->routingIs(true);
   root->counterModeIs(CounterMode::packetMode);
   root->activityPollingIntervalIs(5);
   root->intfConfigIs("Ethernet1");
   EXPECT_FALSE(root->isDefault());
   root->reset();
   EXPECT_TRUE(root->isDefault());
   EXPECT_EQ(root->intfConfigSize(), 1u) << "children are kept";
}

TEST(FibConfig, VrfConfigHoldsDefaultFromTheStart) {
   auto root = vrfConfigFactory("ipv4");
   ASSERT_EQ(root->configSize(), 1u);
   EXPECT_TRUE(root->config("default")->isDefault());
   EXPECT_EQ(root->config("default")->parent(), root.ptr());
   EXPECT_EQ(root->intfConfigSize(), 0u);
}

} // namespace
