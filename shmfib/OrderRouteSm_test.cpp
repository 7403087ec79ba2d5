// Ordered indexes over the merged view and over one table, kept from the
// tables' notifications.
#include "flashlog/Capture.h"
#include "shmfib/OrderRouteSm.h"
#include "shmfib/testlib/Tables.h"

#include <gtest/gtest.h>

namespace {

using namespace Pond::Multicast::Fib;
using Test::routeOf;
using Test::sg;

struct Ordering : Test::Tables {
   Gant::Ptr<RouteOrderedCollection> ordered = routeOrderedCollectionFactory("ordered");
   std::map<IpGenRouteKey, const Status*> view() const { return {ordered->route().begin(), ordered->route().end()}; }
};

TEST_F(Ordering, TheMergedViewInKeyOrderWithTheTableInForce) {
   Status *t0 = table(0), *t1 = table(1);
   enter(t0), enter(t1);
   t0->routeIs(routeOf(1, 1));
   OrderRouteSm sm(coll, ordered);
   {
      Flashlog::Capture capture("Mroute::MfibPond=8");
      t1->routeIs(routeOf(1, 2));
      EXPECT_TRUE(ordered->route().empty()) << "nothing applied before initialization";
      sm.handleInitialized();
      EXPECT_EQ(capture.lines(), (std::vector<std::string>{"OrderRouteSm Not initialized", "Initializing OrderRouteSm",
                                                           "Initialized OrderRouteSm"}));
   }
   EXPECT_EQ(view(), (std::map<IpGenRouteKey, const Status*>{{sg(1), t1}}));

   Flashlog::Capture capture("Mroute::MfibPond=8");
   t1->routeIs(routeOf(1, 2, 7)); // rewritten, same producer in force
   EXPECT_TRUE(capture.lines().empty());
   t1->routeDel(sg(1)); // the one in force goes, the other still has it
   EXPECT_EQ(view(), (std::map<IpGenRouteKey, const Status*>{{sg(1), t0}}));
   t0->routeIs(Route(sg(2))); // every attribute at its default: deleted
   EXPECT_EQ(capture.lines(), (std::vector<std::string>{"Route entry updated for key (s: 10.0.0.1/32 g: 239.1.1.1/32)",
                                                        "Route entry deleted for key (s: 10.0.0.2/32 g: 239.1.1.1/32)"}));

   Status* t2 = table(2);
   t2->routeIs(routeOf(3, 5));
   t1->routeIs(routeOf(1, 3));
   enter(t2); // a table entered later: its keys are applied
   EXPECT_EQ(view(), (std::map<IpGenRouteKey, const Status*>{{sg(1), t1}, {sg(3), t2}}));
   coll->pondPtrDel(t1); // a table leaving: its keys go to the next in force, or away
   coll->pondPtrDel(t2);
   EXPECT_EQ(view(), (std::map<IpGenRouteKey, const Status*>{{sg(1), t0}}));
}

TEST_F(Ordering, EqualPrioritiesKeepTheTableEnteredFirst) {
   Status *t0 = table(0), *t1 = table(1);
   enter(t0), enter(t1);
   OrderRouteSm sm(coll, ordered);
   sm.handleInitialized();
   t1->routeIs(routeOf(1, 2));
   t0->routeIs(routeOf(1, 2));
   EXPECT_EQ(ordered->route(sg(1)), t0) << "met first in the collection";
   t1->routeIs(routeOf(1, 2, 9));
   EXPECT_EQ(ordered->route(sg(1)), t0) << "a rewrite of the other changes nothing";
   t0->routeIs(routeOf(1, 0));
   EXPECT_EQ(ordered->route(sg(1)), t1) << "priority 0 is never in force";
   t1->routeIs(routeOf(1, 1));
   t0->routeIs(routeOf(1, 3));
   EXPECT_EQ(ordered->route(sg(1)), t0) << "raised above the one in force";
}

TEST_F(Ordering, OneTablesKeys) {
   Status* t = table(0);
   t->routeIs(routeOf(1, 1));
   auto modal = modalRouteOrderedCollectionFactory("modal");
   ModalOrderRouteSm sm(Gant::Ptr<Status>(t), modal);
   t->routeIs(routeOf(2, 1));
   EXPECT_TRUE(modal->route().empty());
   Flashlog::Capture capture("Mroute::MfibPond=8");
   sm.handleInitialized();
   t->routeIs(routeOf(3, 1));
   t->routeIs(routeOf(3, 1, 2));
   t->routeDel(sg(1));
   EXPECT_EQ(modal->route(), (Gant::OrderedMap<IpGenRouteKey, bool>{{sg(2), true}, {sg(3), true}}));
   EXPECT_EQ(capture.lines(), (std::vector<std::string>{"Initializing ModalOrderRouteSm", "Initialized ModalOrderRouteSm",
                                                        "Route entry added for key (s: 10.0.0.3/32 g: 239.1.1.1/32)",
                                                        "Route entry deleted for key (s: 10.0.0.1/32 g: 239.1.1.1/32)"}));
}

} // namespace
