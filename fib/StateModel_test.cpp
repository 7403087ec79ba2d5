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
      EXPECT_EQ(m.status->name(), "status");
      EXPECT_EQ(m.mbrIntf->name(), "mbrinterface");
      // Mounting again finds what is there.
      EXPECT_EQ(mountStateModel(tree, af).vrfConfig, m.vrfConfig);
   }
   auto v4 = tree.lookup<VrfConfig>("routing/multicast/vrf/config");
   auto v6 = tree.lookup<VrfConfig>("routing6/multicast/vrf/config");
   ASSERT_TRUE(v4 && v6);
   EXPECT_NE(v4, v6);
   EXPECT_TRUE(v4->configHas("default"));
   EXPECT_NE(tree.lookup<Routing::Multicast::Pim::Status>("routing/multicast/pim/global/status"), nullptr);
   EXPECT_NE(tree.lookup<SparseModeStatus>("routing6/multicast/sparsemode/status"), nullptr);
   EXPECT_NE(tree.lookup<PimIntf::Status>("routing/multicast/pimintf/status"), nullptr);
}

} // namespace
