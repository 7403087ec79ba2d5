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
   red->intfsIs(set);
   EXPECT_EQ(red->attr("intfs").text(), "'red'");
   uint32_t refs = set->refCount();
   root->vrfIntfDel(L3::VrfName("red"));
   red = nullptr;
   EXPECT_EQ(set->refCount(), refs - 1) << "the entry let go of its reference";
   EXPECT_TRUE(set->multicastIntf(Pakto::IntfId("Ethernet1"))) << "and the set lives on";
}

} // namespace
