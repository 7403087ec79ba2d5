#include "fib/Status.h"
#include "gant/testlib/Notifications.h"
#include "gant/testlib/ValueContract.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

using namespace Routing::Multicast::Fib;
using Flags = Intf::IntfFlags;

TEST(FibIntfFlags, RangeAndShortForm) {
   EXPECT_EQ(Flags(0x3f).value(), 0x3fu);
   try {
      Flags f(0x40);
      FAIL();
   } catch (const Gant::RangeError& e) {
      EXPECT_STREQ(e.what(), "IntfFlags::value > 0x3f not allowed");
   }
   auto shortForm = [](uint32_t v) {
      Flags f(v);
      std::ostringstream os;
      os << &f;
      return os.str();
   };
   EXPECT_EQ(shortForm(0x30), "Flags: ");
   EXPECT_EQ(shortForm(0), "Flags: None");
   EXPECT_EQ(shortForm(0x0f), "Flags: FANR");
   EXPECT_EQ(shortForm(0x05), "Flags: FN");
   EXPECT_EQ(shortForm(0x28), "Flags: R");

   Flags f;
   Gant::attrIs(f, "noRpf", true);
   Gant::attrIs(f, "frr", true);
   EXPECT_EQ(f.value(), 0x28u);
   EXPECT_THROW(Gant::attrIs(f, "value", 0x40), Gant::RangeError);
   EXPECT_EQ(f.value(), 0x28u);
}

TEST(FibIntf, EmptinessAndFlagsCheck) {
   EXPECT_TRUE(!Intf());
   Intf onlyFlags;
   onlyFlags.intfFlagsIs(Flags(Flags::forwardMask));
   EXPECT_FALSE(!onlyFlags) << "flags alone make an interface non-empty";
   Intf i(Pakto::IntfId("Ethernet1"), Flags(3));
   EXPECT_THROW(Gant::attrIs(i, "intfFlags", 0x40), Gant::RangeError);
   EXPECT_EQ(i.intfFlags().value(), 3u);
   EXPECT_THROW(Gant::fromLog<Intf>(Gant::Test::bytes({1, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0x40})),
                Gant::RangeError);
}

struct StatusWatch : Status::Reactor, Gant::Test::Notifications {
   using Status::Reactor::Reactor;
   void onIntfBoundaryStatus(const Gant::Name& n) override { hit("boundary " + n); }
   void onNotifyLocalSources(const Gant::String& s) override { hit("local " + s); }
   void onVxlanIntf(const Pakto::IntfId& i) override { hit("vxlan " + i.name()); }
};

TEST(FibStatus, CollectionsAndOwnedBoundaryEntities) {
   auto s = statusFactory("status");
   StatusWatch w(s.ptr());
   auto a = s->intfBoundaryStatusIs("Ethernet1");
   auto b = s->intfBoundaryStatusIs("Ethernet1");
   EXPECT_EQ(a, b);
   EXPECT_EQ(a->parent(), s.ptr());
   EXPECT_STREQ(a->typeName(), "Pakto::IntfBoundaryStatus");
   EXPECT_EQ(w.count("boundary Ethernet1"), 1);
   s->notifyLocalSourcesIs("10.0.0.1", true);
   s->vxlanIntfIs(Pakto::IntfId("Vxlan1"), true);
   s->vxlanIntfDelAll();
   s->intfBoundaryStatusDelAll();
   EXPECT_EQ(w.count("boundary Ethernet1"), 2);
   EXPECT_EQ(w.count("local 10.0.0.1"), 1);
   EXPECT_EQ(w.count("vxlan Vxlan1"), 2);
   EXPECT_EQ(a->parent(), nullptr);
}

TEST(FibStatus, MountPaths) {
   using AF = Pakto::AddressFamily;
   EXPECT_EQ(Status::mountPath(AF::ipv4), "routing/multicast/status");
   EXPECT_EQ(Status::mountPath(AF::ipv6), "routing6/multicast/status");
   EXPECT_EQ(VrfEnabledStatus::mountPath(AF::ipv4), "routing/multicast/fibenabled/status");
   EXPECT_EQ(VrfEnabledStatus::mountPath(AF::ipv6), "routing6/multicast/fibenabled/status");
   EXPECT_EQ(MbrIntf::mountPath(AF::ipv4), "routing/multicast/mbrinterface");
   EXPECT_EQ(MbrIntf::mountPath(AF::ipv6), "routing6/multicast/mbrinterface");
   EXPECT_DEATH(MbrIntf::mountPath(AF::ipunknown), "false && \"Unsupported address family\"");
}

TEST(FibStatus, VrfKeyedCollections) {
   auto v = vrfEnabledStatusFactory("fibenabled");
   v->vrfIs(L3::VrfName("red"), true);
   EXPECT_TRUE(v->vrf(L3::VrfName("red")));
   EXPECT_FALSE(v->vrf(L3::VrfName("blue")));
   auto m = mbrIntfFactory("mbr");
   m->intfIs(Pakto::IntfId("Ethernet2"), true);
   m->intfDel(Pakto::IntfId("Ethernet2"));
   EXPECT_EQ(m->intfSize(), 0u);
}

} // namespace

namespace Gant::Test {

using namespace Routing::Multicast::Fib;

template <>
struct ValueSamples<Intf::IntfFlags> {
   using F = Intf::IntfFlags;
   static std::vector<F> distinct() { return {F(0), F(1), F(0x10), F(0x20), F(0x3f)}; }
   static std::vector<std::pair<F, std::string>> texts() {
      return {{F(0x21), "Value('Routing::Multicast::Fib::Intf::IntfFlags', ** {'forward': True, 'accept': False, "
                        "'notify': False, 'noRpf': False, 'fastdrop': False, 'frr': True})"}};
   }
   static std::vector<std::string> badTexts() {
      return {"Value('Routing::Multicast::Fib::Intf::IntfFlags', ** {'forward': True})",
              "Value('Routing::Multicast::Fib::Intf::IntfFlags', ** {'accept': False, 'forward': True, "
              "'notify': False, 'noRpf': False, 'fastdrop': False, 'frr': True})"};
   }
   static std::vector<std::pair<std::string, std::string>> badLogs() {
      return {{bytes({0, 0, 0, 0x40}), "IntfFlags::value > 0x3f not allowed"}};
   }
};

template <>
struct ValueSamples<Intf> {
   static std::vector<Intf> distinct() {
      return {Intf(), Intf(Pakto::IntfId("Ethernet1"), Intf::IntfFlags(0)),
              Intf(Pakto::IntfId("Ethernet1"), Intf::IntfFlags(3)), Intf(Pakto::IntfId(), Intf::IntfFlags(1)),
              Intf(Pakto::IntfId("Port-Channel10"), Intf::IntfFlags(0x3f))};
   }
   static std::vector<std::pair<Intf, std::string>> texts() {
      return {{Intf(Pakto::IntfId("Ethernet3"), Intf::IntfFlags(0x6)),
               "Value('Routing::Multicast::Fib::Intf', ** {'intfId': Ethernet3, 'intfFlags': "
               "Value('Routing::Multicast::Fib::Intf::IntfFlags', ** {'forward': False, 'accept': True, "
               "'notify': True, 'noRpf': False, 'fastdrop': False, 'frr': False})})"}};
   }
   static std::vector<std::string> badTexts() {
      return {"Value('Routing::Multicast::Fib::Intf', ** {'intfId': Bogus9, 'intfFlags': "
              "Value('Routing::Multicast::Fib::Intf::IntfFlags', ** {'forward': False, 'accept': True, "
              "'notify': True, 'noRpf': False, 'fastdrop': False, 'frr': False})})"};
   }
   static std::vector<std::pair<std::string, std::string>> badLogs() { return {}; }
};

using StatusTypes = ::testing::Types<Intf::IntfFlags, Intf>;
INSTANTIATE_TYPED_TEST_SUITE_P(FibStatus, ValueContract, StatusTypes);

} // namespace Gant::Test
