#include "fib/KernelMfib.h"
#include "gant/testlib/Notifications.h"

#include <gtest/gtest.h>

namespace {

using namespace Routing::KernelMfib;

struct Watch : Status::Reactor, Gant::Test::Notifications {
   using Status::Reactor::Reactor;
   void onVifConfigColl(const Pakto::IntfId& i) override { hit("config " + i.name()); }
   void onIntfIdColl(uint16_t v) override { hit("intf " + std::to_string(v)); }
};

TEST(KernelMfib, StoresOnlyChangesAndNotifiesPerKey) {
   auto s = statusFactory(L3::VrfName("red"));
   EXPECT_EQ(s->name(), "red");
   Watch w(s.ptr());
   Pakto::IntfId e1("Ethernet1");
   s->vifConfigCollIs(e1, 3);
   s->vifConfigCollIs(e1, 3);
   EXPECT_EQ(w.count("config Ethernet1"), 1);
   s->vifConfigCollNotify(e1);
   EXPECT_EQ(w.count("config Ethernet1"), 2) << "an explicit notify always notifies";
   s->intfIdCollIs(3, e1);
   EXPECT_EQ(s->intfIdColl(3), e1);
   EXPECT_EQ(s->intfIdColl(4), Pakto::IntfId()) << "an absent index reads as the empty id";
   s->intfIdCollDel(3);
   EXPECT_EQ(w.count("intf 3"), 2);
}

TEST(KernelMfib, AttributeLogCarriesTheMaps) {
   auto a = statusFactory(L3::VrfName("red"));
   a->vifStatusCollIs(Pakto::IntfId("Vlan10"), 7);
   a->intfIdCollIs(7, Pakto::IntfId("Vlan10"));
   Gant::LogWriter w;
   a->gantLogWrite(w);
   auto b = statusFactory(L3::VrfName("red"));
   Gant::LogReader r(w.data());
   b->gantLogApply(r);
   EXPECT_EQ(b->vifStatusColl(Pakto::IntfId("Vlan10")), 7);
   EXPECT_EQ(b->intfIdColl(7), Pakto::IntfId("Vlan10"));
}

TEST(KernelMfib, CollectionStartsWithDefaultVrf) {
   auto c = statusCollFactory("status");
   ASSERT_EQ(c->vrfStatusSize(), 1u);
   EXPECT_TRUE(c->vrfStatusHas(L3::VrfName("default")));
   EXPECT_THROW(c->vrfStatusIs(L3::VrfName(std::string(101, 'x'))), Gant::RangeError);
   EXPECT_EQ(c->vrfStatusSize(), 1u);
   EXPECT_EQ(StatusColl::mountPath(Pakto::AddressFamily::ipv6), "routing6/kernelmfib/status");
   EXPECT_EQ(StatusColl::mountPath(Pakto::AddressFamily::ipv4), "routing/kernelmfib/status");
   EXPECT_DEATH(StatusColl::mountPath(Pakto::AddressFamily::ipunknown), "false && \"Unsupported address family\"");
}

} // namespace
