// The interfaces of a route, with their roles, from a live table.
#include "flashlog/Capture.h"
#include "pond/testlib/Fixture.h"
#include "shmfib/RouteIntfIterator.h"

#include <gtest/gtest.h>

namespace {

using namespace Pond::Multicast::Fib;

const Routing::Multicast::Fib::IpGenRouteKey key = Routing::Multicast::Fib::makeRouteKeyMroute(
    Gant::fromText<Pakto::Prefix>("10.0.0.1/32"), Gant::fromText<Pakto::Prefix>("239.1.1.1/32"));

Pakto::IntfId eth(int n) { return Pakto::IntfId("Ethernet" + std::to_string(n)); }

struct IntfWalk : Pond::Test::TableTest {
   Gant::Ptr<Status> table = statusFactory("walk");
   void SetUp() override {
      table->openWriter(path, nullptr, options);
      for (int i : {3, 7, 9}) {
         OifIndexIntf m{OifIndex(i)};
         m.intfIs(eth(100 + i));
         table->oifIndexIntfIs(m);
      }
   }
   // "intf flags" per interface, in the order walked.
   template <class It>
   std::vector<std::string> walk(It&& it) {
      std::vector<std::string> out;
      while (it.next()) out.push_back(it.intfId().name() + " " + std::to_string(it.intfFlags().value()));
      return out;
   }
};

TEST_F(IntfWalk, NamedInterfacesThenOutgoingOnesInIndexOrder) {
   struct Case {
      const char* what;
      void (*build)(Route&);
      std::vector<std::string> walked;
   };
   const Case cases[] = {
       {"iif alone, without RPF", [](Route& r) {
           Route::IifFlags f;
           f.noRpfIs(true);
           r.iifIs(eth(1)), r.iifFlagsIs(f);
        }, {"Ethernet1 10"}},
       {"every role",
        [](Route& r) {
           r.iifIs(eth(1)), r.notifyIs(eth(2)), r.fastdropIs(eth(3)), r.iifFrrIs(eth(4));
           for (int i : {9, 3, 7}) r.oifIs(i, true);
           r.maxOifIndexIs(9);
        },
        {"Ethernet1 2", "Ethernet2 4", "Ethernet3 16", "Ethernet4 32", "Ethernet103 5", "Ethernet107 5",
         "Ethernet109 5"}},
       {"no maxOifIndex: no OIFs", [](Route& r) { r.oifIs(3, true); }, {}},
       {"a missing mapping is skipped",
        [](Route& r) {
           for (int i : {3, 5, 9}) r.oifIs(i, true);
           r.maxOifIndexIs(9);
        },
        {"Ethernet103 5", "Ethernet109 5"}},
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(c.what);
      Route r(key);
      c.build(r);
      table->routeIs(r);
      RouteIntfIteratorConst it(table, key);
      EXPECT_EQ(walk(it), c.walked);
   }
   CachedMapRouteIntfIteratorConst::Cache cache{{OifIndex(9), eth(42)}};
   Flashlog::Capture capture("Mroute::MfibPond=8");
   CachedMapRouteIntfIteratorConst cached(table, key, cache);
   EXPECT_EQ(walk(cached), std::vector<std::string>{"Ethernet42 5"});
   EXPECT_EQ(capture.lines(), (std::vector<std::string>{"CachedMapRouteIntfIterator: missing intf mapping from cache: 3",
                                                        "CachedMapRouteIntfIterator: missing intf mapping from cache: 5"}));
}

TEST_F(IntfWalk, ARouteRewrittenUnderTheWalkEndsIt) {
   Route r(key);
   for (int i : {3, 7}) r.oifIs(i, true);
   r.maxOifIndexIs(7);
   r.versionIs(4);
   table->routeIs(r);
   RouteIntfIteratorConst it(table, key);
   ASSERT_TRUE(it.next());
   EXPECT_EQ(it.oifIndex(), OifIndex(3));
   r.versionIs(5);
   table->routeIs(r);
   Flashlog::Capture capture("Mroute::MfibPond=8");
   EXPECT_FALSE(it.next());
   EXPECT_EQ(capture.lines(), std::vector<std::string>{"next(): route version mismatch 4!=5"});
}

using IntfWalkDeathTest = IntfWalk;

TEST_F(IntfWalkDeathTest, AMappingToNoInterfaceStops) {
   table->oifIndexIntfIs(OifIndexIntf{OifIndex(3)});
   Route r(key);
   r.oifIs(3, true);
   r.maxOifIndexIs(3);
   table->routeIs(r);
   RouteIntfIteratorConst it(table, key);
   EXPECT_DEATH(it.next(), "Assertion failed: intfId != Pakto::IntfId\\(\\)");
}

} // namespace
