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
      // Mounting again finds what is there.
      EXPECT_EQ(mountStateModel(tree, af).vrfConfig, m.vrfConfig);
   }
   EXPECT_NE(tree.lookup<VrfConfig>(VrfConfig::mountPath(Pakto::AddressFamily::ipv4)),
             tree.lookup<VrfConfig>(VrfConfig::mountPath(Pakto::AddressFamily::ipv6)));
}

} // namespace
