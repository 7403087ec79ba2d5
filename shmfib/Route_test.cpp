#include "shmfib/Route.h"
#include "gant/testlib/ValueContract.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using namespace Pond::Multicast::Fib;
using Routing::Multicast::Fib::IpGenRouteKey;

IpGenRouteKey sg(const char* s, const char* g) {
   return Routing::Multicast::Fib::makeRouteKeyMroute(Gant::fromText<Pakto::Prefix>(s),
                                                      Gant::fromText<Pakto::Prefix>(g));
}

TEST(ShmRoute, NextOifSearchesWholeWordsUpToMax) {
   Route r(sg("10.0.0.1/32", "239.1.1.1/32"));
   EXPECT_EQ(r.maxOifIndex(), OifIndex::null());
   EXPECT_EQ(r.nextOif(OifIndex::null()), OifIndex::null()) << "a new route has no interface";
   r.oifIs(3, true);
   r.oifIs(70, true);
   r.maxOifIndexIs(70);
   EXPECT_EQ(r.nextOif(OifIndex::null()), OifIndex(3));
   EXPECT_EQ(r.nextOif(3), OifIndex(70));
   EXPECT_EQ(r.nextOif(70), OifIndex::null());
   std::vector<unsigned> walked;
   for (auto it = r.oifIteratorConst(); it; ++it) walked.push_back((*it).value());
   EXPECT_EQ(walked, (std::vector<unsigned>{3, 70}));
   walked.clear();
   for (auto it = r.oifIteratorConst(4); it; ++it) walked.push_back((*it).value());
   EXPECT_EQ(walked, (std::vector<unsigned>{70}));

   Route beyond(sg("10.0.0.1/32", "239.1.1.1/32"));
   beyond.oifIs(100, true);
   beyond.maxOifIndexIs(63);
   EXPECT_EQ(beyond.nextOif(OifIndex::null()), OifIndex::null()) << "word 1 is never searched";
   beyond.oifIs(62, true);
   beyond.maxOifIndexIs(5);
   EXPECT_EQ(beyond.nextOif(OifIndex::null()), OifIndex(62)) << "bits above max in its word are found";
   beyond.oifIs(511, true);
   beyond.maxOifIndexIs(511);
   EXPECT_EQ(beyond.nextOif(100), OifIndex(511));
   EXPECT_EQ(beyond.nextOif(511), OifIndex::null());
}

TEST(ShmRoute, OifSetOperations) {
   Route r(sg("10.0.0.1/32", "239.1.1.1/32"));
   r.oifIs(0, true);
   r.oifIs(64, true);
   EXPECT_TRUE(r.oif(64));
   EXPECT_TRUE(r.oifDel(64));
   EXPECT_FALSE(r.oifDel(64));
   EXPECT_EQ(r.oifBitmap(0), 1u);
   r.oifBitmapIs(7, 0x8000000000000000ull);
   EXPECT_TRUE(r.oif(511));
   EXPECT_FALSE(r.oif(OifIndex::null()));
   for (unsigned w = 0; w < 4; ++w) r.oifBitmapIs(w, ~uint64_t(0));
   EXPECT_EQ(r.oifs(), 1) << "256 interfaces and bit 511: 257 count as 1 in 8 bits";
}

TEST(ShmRoute, StarGAndBidir) {
   Route star(sg("0.0.0.0/0", "239.1.1.1/32"));
   EXPECT_TRUE(star.isStarG());
   star.rpaIdIs(3);
   EXPECT_FALSE(star.isStarG()) << "a bidirectional group is never (*,G)";
   EXPECT_FALSE(Route(sg("10.0.0.1/32", "239.1.1.1/32")).isStarG());
   EXPECT_FALSE(Route().isStarG());
}

TEST(ShmRoute, DifferenceAndMask) {
   Pakto::IntfId e1("Ethernet1"), e2("Ethernet2");
   Route a(sg("10.0.0.1/32", "239.1.1.1/32")), b(a.key());
   a.iifIs(e1);
   b.iifIs(e1);
   a.notifyIs(e2);
   b.fastdropIs(e2);
   a.oifIs(1, true);
   b.oifIs(1, true);
   b.oifIs(2, true);
   a.routeFlagsIs(Route::RouteFlags(0x3));
   b.routeFlagsIs(Route::RouteFlags(0x1));
   a.versionIs(9);
   Route d = a ^ b;
   EXPECT_EQ(d.key(), a.key());
   EXPECT_EQ(d.iif(), Pakto::IntfId()) << "equal interfaces give the empty interface";
   EXPECT_EQ(d.notify(), e2) << "a's when a's is set";
   EXPECT_EQ(d.fastdrop(), e2) << "else b's";
   EXPECT_EQ(d.oifBitmap1(), 0x4u);
   EXPECT_EQ(d.maxOifIndex(), OifIndex(511));
   EXPECT_EQ(d.routeFlags().value(), 0x2u);
   EXPECT_EQ(d.version(), 0u);

   Route mask(a.key());
   mask.iifIs(e1);
   mask.oifBitmap1Is(0x6);
   b.iifFlagsIs(Route::IifFlags(1));
   b.versionIs(4);
   Route m = mask & b;
   EXPECT_EQ(m.iif(), e1);
   EXPECT_TRUE(m.iifFlags().noRpf()) << "the iif brings its flags";
   EXPECT_EQ(m.fastdrop(), Pakto::IntfId()) << "not selected by the mask";
   EXPECT_EQ(m.oifBitmap1(), 0x6u & 0x6u);
   EXPECT_EQ(m.routeFlags(), b.routeFlags());
   EXPECT_EQ(m.version(), 4u);
   EXPECT_EQ(m.maxOifIndex(), OifIndex(511));
}

TEST(ShmRoute, PondStringAndTextForms) {
   Route r(sg("10.0.0.1/32", "239.1.1.1/32"));
   r.iifIs(Pakto::IntfId("Ethernet1"));
   r.routeFlagsIs(Route::RouteFlags(0x11));
   r.oifIs(0, true);
   r.oifIs(511, true);
   r.maxOifIndexIs(511);
   r.versionIs(7);
   r.routePriorityIs(3);
   EXPECT_EQ(r.pondString(),
             "[(10.0.0.1,239.1.1.1)] F 0x11 0x0 I Ethernet1 N  S  F  O 0x8000000000000000 0x0 0x0 0x0 0x0 0x0 "
             "0x0 0x1 max 511 ver 7 priority 3");
   EXPECT_EQ(Gant::toText(Route::IifFlags(1)), "True");
   // The record's text keeps each attribute's own name, the eight words too.
   EXPECT_EQ(Gant::toText(Route(sg("10.0.0.1/32", "239.1.1.1/32"))),
             "Value('Pond::Multicast::Fib::Route', ** {'key': Value('Routing::Multicast::Fib::IpGenRouteKey', ** "
             "{'s': 10.0.0.1/32, 'g': 239.1.1.1/32}), 'iif': , 'iifFrr': , 'notify': , 'fastdrop': , "
             "'notifyProgrammable': False, 'routeFlags': Value('Pond::Multicast::Fib::Route::RouteFlags', ** "
             "{'valid': False, 'toCpu': False, 'iifRegister': False, 'oifRegister': False, 'programmable': False, "
             "'skipKernelProgramming': False}), 'iifFlags': False, 'rpaId': 0, 'maxOifIndex': 512, "
             "'routePriority': 1, 'version': 0, 'oifBitmap1': 0, 'oifBitmap2': 0, 'oifBitmap3': 0, 'oifBitmap4': "
             "0, 'oifBitmap5': 0, 'oifBitmap6': 0, 'oifBitmap7': 0, 'oifBitmap8': 0})");
}

TEST(ShmRoute, BytesFromOutsideAreValidated) {
   Route r(sg("10.0.0.1/32", "239.1.1.1/32"));
   EXPECT_TRUE(Gant::validValue(r));
   unsigned char bytes[sizeof(Route)];
   std::memcpy(bytes, &r, sizeof r);
   Route garbled;
   // Whatever the byte, no crash; a bool byte of 0xff or a flags word out
   // of range breaks the record.
   std::size_t broken = 0;
   for (std::size_t i = 0; i < sizeof bytes; ++i) {
      unsigned char saved = bytes[i];
      bytes[i] = 0xff;
      std::memcpy(static_cast<void*>(&garbled), bytes, sizeof garbled);
      bytes[i] = saved;
      broken += !Gant::validValue(garbled);
   }
   EXPECT_GT(broken, 0u);
}

} // namespace

namespace Gant::Test {

using namespace Pond::Multicast::Fib;

template <>
struct ValueSamples<OifIndex> : Samples<OifIndex> {
   static std::vector<OifIndex> distinct() { return {OifIndex(0), OifIndex(1), OifIndex(511), OifIndex::null()}; }
   static std::vector<std::pair<OifIndex, std::string>> texts() { return {{OifIndex(7), "7"}}; }
   static std::vector<std::string> badTexts() { return {"513", "-1", "x"}; }
   static std::vector<std::pair<std::string, std::string>> badLogs() {
      return {{bytes({0x02, 0x01}), "OifIndex::value < OifIndex::min or > OifIndex::null not allowed"}};
   }
};

template <>
struct ValueSamples<Route> : Samples<Route> {
   static std::vector<Route> distinct() {
      auto key = Routing::Multicast::Fib::makeRouteKeyMroute(Gant::fromText<Pakto::Prefix>("10.0.0.1/32"),
                                                             Gant::fromText<Pakto::Prefix>("239.1.1.1/32"));
      Route a(key), b(key), c(key), d(Routing::Multicast::Fib::makeRouteKeyVlanFloodset(10));
      b.oifIs(300, true);
      b.maxOifIndexIs(300);
      c.iifIs(Pakto::IntfId("Ethernet4"));
      c.notifyProgrammableIs(true);
      c.routeFlagsIs(Route::RouteFlags(0x3f));
      c.versionIs(UINT32_MAX);
      c.rpaIdIs(65535);
      c.routePriorityIs(255);
      return {Route(), a, b, c, d};
   }
};

using RecordTypes = ::testing::Types<OifIndex, Route>;
INSTANTIATE_TYPED_TEST_SUITE_P(ShmRecords, ValueContract, RecordTypes);

} // namespace Gant::Test
