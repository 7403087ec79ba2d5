// Ordered indexes over the merged view and over one table, kept from the
// tables' notifications.
#include "flashlog/Capture.h"
#include "loop/EpollLoop.h"
#include "pond/testlib/Fixture.h"
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

// Tables mounted by a reader are weighed whole once read, in key order,
// not key by key as their first read delivers them: the outcome must be
// the same merge. Tables entered a then b, mounted in either order.
TEST_F(Ordering, TablesReadWholeAtMountEndInTheMerge) {
   constexpr int none = -1, byDefault = -2; // no record; the key's default Route(key)
   struct Case {
      int a, b;
      int inForce; // 0: a, 1: b, none: absent
   };
   const Case cases[] = {
       {1, 2, 1},          {2, 1, 0},  {2, 2, 0} /* equal: entered first */, {0, 0, none}, {0, 1, 1},
       {byDefault, 3, 1},  {3, byDefault, 0}, {byDefault, none, none},      {1, none, 0}, {none, 0, none},
       {none, 4, 1},       {5, 0, 0},
   };
   auto write = [](Status* t, uint32_t n, int priority) {
      if (priority == byDefault) t->routeIs(Route(sg(n)));
      else if (priority != none) t->routeIs(routeOf(n, uint8_t(priority)));
   };
   for (bool bFirst : {false, true}) {
      SCOPED_TRACE(bFirst ? "b mounted first" : "a mounted first");
      Status *wa = table(0), *wb = table(1);
      wa->routeDelAll();
      wb->routeDelAll();
      // Written in reverse key order, so that slot order is not key order.
      for (uint32_t n = std::size(cases); n-- > 0;) write(wa, n, cases[n].a), write(wb, n, cases[n].b);
      Loop::EpollLoop loop;
      Gant::Ptr<Status> a = statusFactory("a"), b = statusFactory("b");
      for (const auto& t : bFirst ? std::vector{b, a} : std::vector{a, b}) {
         const int i = t == a ? 0 : 1;
         t->openReader("routing/multicast/routestatus/red/p" + std::to_string(i), loop, options);
      }
      auto c = mfibPondCollFactory(L3::VrfName("red"));
      c->pondPtrIs(a.ptr(), Gant::PtrConst<Status>(a.ptr()));
      c->pondPtrIs(b.ptr(), Gant::PtrConst<Status>(b.ptr()));
      auto o = routeOrderedCollectionFactory("mounted");
      OrderRouteSm sm(c, o);
      sm.handleInitialized();
      loop.runUntil([&] { return a->tableReady() && b->tableReady(); }, 5);
      std::map<IpGenRouteKey, const Status*> want;
      for (uint32_t n = 0; n < std::size(cases); ++n)
         if (cases[n].inForce != none) want[sg(n)] = cases[n].inForce == 0 ? a.ptr() : b.ptr();
      EXPECT_EQ((std::map<IpGenRouteKey, const Status*>(o->route().begin(), o->route().end())), want);
      // A change once mounted is applied at once, as ever.
      wa->routeIs(routeOf(0, 9));
      loop.runUntil([&] { return o->route(sg(0)) == a.ptr(); }, 5);
      EXPECT_EQ(o->route(sg(0)), a.ptr());
   }
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
