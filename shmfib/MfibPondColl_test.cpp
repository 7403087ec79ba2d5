// Several producers' tables of one VRF merged by route priority.
#include "shmfib/MfibPondColl.h"
#include "shmfib/MfibPondDir.h"
#include "shmfib/testlib/Tables.h"
#include "flashlog/Capture.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

namespace {

using namespace Pond::Multicast::Fib;
using Test::routeOf;
using Test::sg;

std::string text(const void* p) {
   std::ostringstream s;
   s << p;
   return s.str();
}

using Producers = Test::Tables;

TEST_F(Producers, TheHighestPriorityIsInForce) {
   Status *t0 = table(0), *t1 = table(1), *t2 = table(2);
   enter(t0), enter(t1), enter(t2);
   t0->routeIs(routeOf(1, 1));
   t1->routeIs(routeOf(1, 2));
   t0->routeIs(Route(sg(2))); // every attribute at its default: absent
   t2->routeIs(routeOf(2, 1));
   t0->routeIs(routeOf(4, 0)); // priority 0 is never in force
   t0->routeIs(routeOf(5, 2));
   t1->routeIs(routeOf(5, 2)); // equal: the table entered first stays
   struct Case {
      uint32_t key;
      const Status* inForce;
      const Status* without; // nextBestPond without the one in force
   };
   for (const Case& c : {Case{1, t1, t0}, Case{2, t2, nullptr}, Case{3, nullptr, nullptr}, Case{4, nullptr, nullptr},
                         Case{5, t0, t1}}) {
      SCOPED_TRACE(c.key);
      EXPECT_EQ(coll->pondKey(sg(c.key)), c.inForce);
      EXPECT_EQ(coll->mfibPond(sg(c.key)).ptr(), c.inForce);
      EXPECT_EQ(coll->nextBestPond(c.inForce, sg(c.key)), c.without);
      EXPECT_EQ(coll->route(sg(c.key)), c.inForce ? *c.inForce->route(sg(c.key)) : Route(sg(c.key)));
   }
   EXPECT_FALSE(coll->isBestRoute(t0, sg(1)));
   EXPECT_TRUE(coll->isBestRoute(t1, sg(1)));

   std::map<IpGenRouteKey, const Status*> merged;
   for (MfibPondCollRouteIteratorConst it(coll); it; ++it)
      EXPECT_TRUE(merged.emplace(it.key(), it.pondKey()).second) << "each key once";
   EXPECT_EQ(merged, (std::map<IpGenRouteKey, const Status*>{{sg(1), t1}, {sg(2), t2}, {sg(5), t0}}));
   EXPECT_EQ(coll->routes(), 3u);

   coll->pondPtrDel(t1);
   EXPECT_EQ(coll->pondKey(sg(1)), t0) << "the next in force takes over";
}

TEST_F(Producers, TheMergedWalkTracesWhyAnEntryLoses) {
   Status *t0 = table(0), *t1 = table(1);
   enter(t0), enter(t1);
   t0->routeIs(routeOf(1, 1));
   t1->routeIs(routeOf(1, 2));
   Flashlog::Capture capture("MfibPondCollRouteIterator=8");
   MfibPondCollRouteIteratorConst it(coll);
   const std::string key = sg(1).pretty();
   EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                  "Pond Key= " + text(t0), "Route Key= " + key, "My priority= 1",
                                  "Pond Key " + text(t1) + " has better priority 2 for " + key,
                                  "Pond Key= " + text(t1), "Route Key= " + key, "My priority= 2",
                                  "Pond key=" + text(t1) + ", RouteKey=" + key}));
   capture.clear();
   ++it;
   EXPECT_FALSE(it);
   EXPECT_EQ(capture.lines(), std::vector<std::string>{"Done"});
}

TEST_F(Producers, ARouteOfATableNamesItsTableByName) {
   const MfibPondDirRouteKey k(table(0), sg(1));
   EXPECT_EQ(Gant::toText(k), "Value('Pond::Multicast::Fib::MfibPondDirRouteKey', ** {'pondKey': 'p0', 'routeKey': " +
                                  Gant::toText(sg(1)) + "})");
   EXPECT_NE(Gant::toText(MfibPondDirRouteKey()).find("{'pondKey': None, "), std::string::npos);
   EXPECT_THROW(Gant::fromText<MfibPondDirRouteKey>(Gant::toText(k)), Gant::ParseError) << "no form to read back";
}

} // namespace

