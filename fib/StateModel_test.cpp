// The per-family state model: where agents find each entity, and what the
// hand-written parts of those entities add.
#include "fib/StateModel.h"

#include <gtest/gtest.h>

namespace {

using namespace Routing::Multicast::Fib;

TEST(FibStateModel, AgentsFindEveryEntityByPath) {
   Hive::Tree tree;
   for (auto af : {Pakto::AddressFamily::ipv4, Pakto::AddressFamily::ipv6}) {
      StateModel m = mountStateModel(tree, af);
      EXPECT_EQ(tree.lookup<VrfConfig>(VrfConfig::mountPath(af)), m.vrfConfig);
      EXPECT_EQ(tree.lookup<Hardware::Status>(Hardware::Status::mountPath(af)), m.hardwareStatus);
      EXPECT_EQ(tree.lookup<Routing::KernelMfib::StatusColl>(Routing::KernelMfib::StatusColl::mountPath(af)), m.kernelMfib);
      EXPECT_EQ(tree.lookup<McastCommon::AppVrfIntfs>(McastCommon::AppVrfIntfs::mountPath(af)), m.appVrfIntfs);
      EXPECT_EQ(tree.lookup<Routing::Multicast::Pim::Status>(Routing::Multicast::Pim::Status::mountPath(af)),
                m.pimStatus);
      EXPECT_EQ(tree.lookup<SparseModeStatus>(SparseModeStatus::mountPath(af)), m.sparseModeStatus);
      EXPECT_EQ(tree.lookup<PimIntf::Status>(PimIntf::Status::mountPath(af)), m.pimIntfStatus);
      EXPECT_EQ(m.status->name(), "status");
      EXPECT_EQ(m.mbrIntf->name(), "mbrinterface");
      EXPECT_EQ(m.kernelMfib->vrfStatusSize(), 1u);
      EXPECT_TRUE(m.kernelMfib->vrfStatusHas(L3::VrfName("default"))) << "there from the start";
      // Mounting again finds what is there.
      EXPECT_EQ(mountStateModel(tree, af).vrfConfig, m.vrfConfig);
   }
   EXPECT_NE(tree.lookup<VrfConfig>(VrfConfig::mountPath(Pakto::AddressFamily::ipv4)),
             tree.lookup<VrfConfig>(VrfConfig::mountPath(Pakto::AddressFamily::ipv6)));
}

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
}

} // namespace
