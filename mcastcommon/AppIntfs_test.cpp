#include "mcastcommon/AppIntfs.h"

#include <gtest/gtest.h>

namespace {

using namespace McastCommon;

TEST(AppIntfs, VrfEntriesReferenceInterfaceSetsOwnedElsewhere) {
   auto root = appVrfIntfsFactory("application");
   auto red = root->vrfIntfIs(L3::VrfName("red"));
   EXPECT_EQ(red->intfs(), nullptr) << "known to the directory before any set is linked";
   auto set = multicastIntfsForApplicationsFactory("red");
   set->multicastIntfIs(Pakto::IntfId("Ethernet1"), true);
   struct Watch : VrfIntfColl::Reactor {
      using VrfIntfColl::Reactor::Reactor;
      int n = 0;
      void onIntfs() override { ++n; }
   } w(red.ptr());
   red->intfsIs(set);
   red->intfsIs(set);
   EXPECT_EQ(w.n, 1);
   EXPECT_EQ(red->attr("intfs").text(), "'red'");
   uint32_t refs = set->refCount();
   root->vrfIntfDel(L3::VrfName("red"));
   red = nullptr;
   EXPECT_EQ(set->refCount(), refs - 1) << "the entry let go of its reference";
   EXPECT_TRUE(set->multicastIntf(Pakto::IntfId("Ethernet1"))) << "and the set lives on";
}

TEST(AppIntfs, MountPath) {
   EXPECT_EQ(AppVrfIntfs::mountPath(Pakto::AddressFamily::ipv4), "multicastIntfs/application");
   EXPECT_EQ(AppVrfIntfs::mountPath(Pakto::AddressFamily::ipv6), "multicastIntfs6/application");
   EXPECT_DEATH(AppVrfIntfs::mountPath(Pakto::AddressFamily::ipunknown), "false && \"Unsupported address family\"");
}

} // namespace
