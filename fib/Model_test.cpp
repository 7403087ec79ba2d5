// What the model promises across its generated types: enumerations found by
// their full names, and the counter table's whole-collection notification.
#include "fib/Counter.h"
#include "fib/GroupKey.h"
#include "loop/EpollLoop.h"
#include "pond/testlib/Fixture.h"

#include <gtest/gtest.h>

namespace {

TEST(Model, EnumerationsAreRegisteredByFullName) {
   struct Case {
      const char* type;
      const char* member;
      uint32_t value;
   };
   for (const Case& c : {Case{"Routing::Multicast::Fib::RouteKeyType", "ethGroup", 3},
                         Case{"Multicast::Group::McastGroupKind", "mcastGroupKindTapAgg", 19},
                         Case{"Routing::Multicast::Fib::CounterMode", "byteMode", 2},
                         Case{"Routing::Multicast::Fib::Config::MultipathControl", "multipathNone", 1}}) {
      SCOPED_TRACE(c.type);
      const Gant::TypeInfo* t = Gant::TypeRegistry::find(c.type);
      ASSERT_NE(t, nullptr);
      ASSERT_NE(t->enumInfo, nullptr);
      EXPECT_STREQ(t->enumInfo->typeName, c.type);
      uint32_t v = 0;
      EXPECT_TRUE(t->enumInfo->valueOf(c.member, v));
      EXPECT_EQ(v, c.value);
      EXPECT_EQ(t->factory, nullptr);
   }
}

TEST(Model, CounterTableHearsWholeCollectionChanges) {
   using namespace Routing::Multicast::Fib;
   Loop::EpollLoop loop;
   auto status = counterStatusFactory("counters");
   struct Watch : CounterStatus::Reactor {
      using CounterStatus::Reactor::Reactor;
      int keys = 0, whole = 0;
      void onCounter(const IpGenRouteKey&) override { ++keys; }
      void onCounter() override { ++whole; }
   } w(status.ptr());
   status->openWriter("routing/multicast/counter/whole", &loop, Pond::Test::uniqueOptions());
   status->counterIs(Counter(makeRouteKeyVlanFloodset(3)));
   status->counterIs(Counter(makeRouteKeyVlanFloodset(4)));
   status->counterNotify();
   EXPECT_EQ(w.whole, 1);
   status->counterDelAll();
   EXPECT_EQ(status->counterSize(), 0u);
   EXPECT_EQ(w.keys, 4) << "two insertions, then each removal";
   EXPECT_EQ(w.whole, 2) << "emptying is a change of the whole collection";
   status->tableWriter()->unlink();
}

} // namespace
