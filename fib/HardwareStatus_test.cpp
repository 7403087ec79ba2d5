#include "fib/HardwareStatus.h"
#include "gant/testlib/Notifications.h"
#include "hive/Tree.h"
#include "gant/testlib/ValueContract.h"

#include <gtest/gtest.h>

namespace {

using namespace Routing::Multicast::Fib;
using HwFlags = Hardware::RouteStatus::HwFlags;

IpGenRouteKey route(uint32_t n) {
   return makeRouteKeyMroute(Pakto::Prefix(Pakto::IpAddr::fromHost(0x0a000000 + n), 32),
                             Gant::fromText<Pakto::Prefix>("239.1.1.1/32"));
}

TEST(FibHardwareStatus, DefaultsOfANewStatus) {
   auto s = Hardware::statusFactory("status");
   EXPECT_TRUE(s->hwRouting());
   EXPECT_TRUE(s->avoidDuplicates());
   EXPECT_TRUE(s->deleteL2RouteOnFailure());
   EXPECT_EQ(s->pollingInterval(), 60);
   EXPECT_EQ(s->pollingMinInterval(), 1);
   EXPECT_FALSE(s->hwResourceFull());
   EXPECT_EQ(s->routeLimit(), 0u);
   EXPECT_EQ(s->routes(), 0u);
   s->waitForRoutingDisabledCntIs(UINT32_MAX);
   s->waitForRoutingDisabledCntInc(1);
   EXPECT_EQ(s->waitForRoutingDisabledCnt(), 0u);
}

TEST(FibHardwareStatus, RoutesSumsOverVrfs) {
   auto s = Hardware::statusFactory("status");
   auto red = s->vrfStatusIs(L3::VrfName("red"));
   s->vrfStatusIs(L3::VrfName("blue"));
   for (uint32_t n = 0; n < 3; ++n) red->routeIs(route(n));
   EXPECT_EQ(s->routes(), 3u);
   auto rs = red->routeIs(route(1));
   EXPECT_EQ(rs->key(), route(1));
   EXPECT_EQ(rs->parent(), red.ptr());
   EXPECT_EQ(red->vrfName(), L3::VrfName("red"));
   EXPECT_EQ(red->name(), "red");
}

struct RouteWatch : Hardware::RouteStatus::Reactor, Gant::Test::Notifications {
   using Hardware::RouteStatus::Reactor::Reactor;
   void onHwFlags() override { hit("hwFlags"); }
   void onFastdropLastPollTime(const Gant::String& k) override { hit("poll " + k); }
};

TEST(FibHardwareStatus, HwFlagsRefusedAboveThree) {
   auto rs = Hardware::routeStatusFactory(route(1));
   RouteWatch w(rs.ptr());
   rs->hwFlagsIs(HwFlags(HwFlags::noRouteMask));
   EXPECT_EQ(w.count("hwFlags"), 1);
   try {
      rs->hwFlagsIs(HwFlags(4));
      FAIL();
   } catch (const Gant::RangeError& e) {
      EXPECT_STREQ(e.what(), "HwFlags::value > 0x3 not allowed");
   }
   EXPECT_THROW(rs->attrIs("hwFlags", 4), Gant::RangeError);
   EXPECT_EQ(rs->hwFlags().value(), 1u);
   EXPECT_EQ(w.count("hwFlags"), 1) << "refused writes notify nobody";
   rs->fastdropLastPollTimeIs("Ethernet1", 1.5);
   rs->fastdropLastPollTimeIs("Ethernet1", 1.5);
   EXPECT_EQ(w.count("poll Ethernet1"), 1);
}

TEST(FibReadyStatus, MountPaths) {
   using AF = Pakto::AddressFamily;
   EXPECT_EQ(ReadyStatus::mountPath(AF::ipv4, "sparsemode"), Cell::path("routing/multicast/fibready/status", 0));
   EXPECT_EQ(ReadyStatus::mountPath(AF::ipv4, "sparsemode"), "cell/0/routing/multicast/fibready/status");
   EXPECT_EQ(ReadyStatus::mountPath(AF::ipv4, "mfwd"), Cell::path("routing/multicast/fibready/mfwd/status", 0));
   EXPECT_EQ(ReadyStatus::mountPath(AF::ipv6, "mfwd"), Cell::path("routing6/multicast/fibready/mfwd/status", 0));
   EXPECT_EQ(Hardware::Status::mountPath(AF::ipv4), "routing/hardware/multicast/status");
   EXPECT_EQ(Hardware::Status::mountPath(AF::ipv6), "routing6/hardware/multicast/status");
   EXPECT_DEATH(ReadyStatus::mountPath(AF::ipunknown, "x"), "false && \"Unsupported address family\"");
   auto ready = readyStatusFactory("sparsemode");
   ready->vrfReadyIs(L3::VrfName("default"), true);
   EXPECT_TRUE(ready->vrfReady(L3::VrfName("default")));
}

} // namespace

namespace Gant::Test {

using HwFlags = Routing::Multicast::Fib::Hardware::RouteStatus::HwFlags;

template <>
struct ValueSamples<HwFlags> {
   static std::vector<HwFlags> distinct() { return {HwFlags(0), HwFlags(1), HwFlags(2), HwFlags(3)}; }
   static std::vector<std::pair<HwFlags, std::string>> texts() {
      return {{HwFlags(2), "Value('Routing::Multicast::Fib::Hardware::RouteStatus::HwFlags', ** {'noRoute': "
                           "False, 'noIntfs': True})"}};
   }
   static std::vector<std::string> badTexts() {
      return {"Value('Routing::Multicast::Fib::Hardware::RouteStatus::HwFlags', ** {'noRoute': False})"};
   }
   static std::vector<std::pair<std::string, std::string>> badLogs() {
      return {{bytes({0, 0, 0, 4}), "HwFlags::value > 0x3 not allowed"}};
   }
};

INSTANTIATE_TYPED_TEST_SUITE_P(FibHardware, ValueContract, ::testing::Types<HwFlags>);

} // namespace Gant::Test
