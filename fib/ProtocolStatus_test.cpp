#include "fib/ProtocolStatus.h"
#include "gant/testlib/Notifications.h"

#include <gtest/gtest.h>

namespace {

using AF = Pakto::AddressFamily;

TEST(FibProtocolStatus, LegacyConfigConstantsAreReadOnly) {
   auto c = Routing::Multicast::multicastLegacyConfigFactory("legacy");
   EXPECT_TRUE(c->legacy());
   EXPECT_EQ(c->version(), 1);
   EXPECT_EQ(c->attr("globalMode").as<uint8_t>(), 1);
   EXPECT_EQ(c->attr("routerMode").as<uint8_t>(), 2);
   EXPECT_EQ(c->attr("ipMode").as<uint8_t>(), 3);
   EXPECT_THROW(c->attrIs("ipMode", 4), Gant::UnsupportedOperation);
   c->versionIs(Routing::Multicast::MulticastLegacyConfig::routerMode());
   EXPECT_EQ(c->attr("version").text(), "2");
}

struct SparseWatch : Routing::Multicast::Fib::SparseModeStatus::Reactor, Gant::Test::Notifications {
   using Routing::Multicast::Fib::SparseModeStatus::Reactor::Reactor;
   void onFastFailoverIntf(const Pakto::IntfId& i) override { hit(i.name()); }
};

TEST(FibProtocolStatus, FastFailoverIsASet) {
   auto s = Routing::Multicast::Fib::sparseModeStatusFactory("status");
   SparseWatch w(s.ptr());
   Pakto::IntfId e1("Ethernet1");
   EXPECT_EQ(s->fastFailoverIntfIs(e1), e1);
   EXPECT_EQ(s->fastFailoverIntfIs(e1), e1);
   EXPECT_EQ(s->fastFailoverIntfSize(), 1u);
   EXPECT_EQ(w.count("Ethernet1"), 1);
}

TEST(FibProtocolStatus, VrfCollectionsNotifyWithTheVrf) {
   auto pim = Routing::Multicast::Pim::statusFactory("status");
   struct Watch : Routing::Multicast::Pim::Status::Reactor, Gant::Test::Notifications {
      using Routing::Multicast::Pim::Status::Reactor::Reactor;
      void onPimEnabledBidirVrf(const L3::VrfName& v) override { hit(v.str()); }
   } w(pim.ptr());
   pim->pimEnabledBidirVrfIs(L3::VrfName("red"), true);
   pim->pimEnabledBidirVrfDelAll();
   EXPECT_EQ(w.count("red"), 2);
   auto bidir = Routing::Multicast::Fib::bidirStatusFactory("bidir");
   bidir->bidirEnabledVrfIs(L3::VrfName("red"), true);
   EXPECT_TRUE(bidir->bidirEnabledVrfHas(L3::VrfName("red")));
}

TEST(FibProtocolStatus, MountPaths) {
   EXPECT_EQ(Routing::Multicast::Pim::Status::mountPath(AF::ipv4), "routing/multicast/pim/global/status");
   EXPECT_EQ(Routing::Multicast::Pim::Status::mountPath(AF::ipv6), "routing6/multicast/pim/global/status");
   EXPECT_EQ(Routing::Multicast::Vxlan::Status::mountPath(AF::ipv4), "routing/multicast/vxlan/status");
   EXPECT_EQ(Routing::Multicast::Vxlan::Status::mountPath(AF::ipv6), "routing6/multicast/vxlan/status");
   EXPECT_EQ(Routing::Multicast::Fib::SparseModeStatus::mountPath(AF::ipv4), "routing/multicast/sparsemode/status");
   EXPECT_EQ(Routing::Multicast::Fib::SparseModeStatus::mountPath(AF::ipv6),
             "routing6/multicast/sparsemode/status");
   EXPECT_DEATH(Routing::Multicast::Vxlan::Status::mountPath(Pakto::AddressFamilyInstance(0u)),
                "false && \"Unsupported address family\"");
}

} // namespace
