#include "fib/Counter.h"
#include "flashlog/Capture.h"
#include "gant/testlib/ValueContract.h"
#include "loop/EpollLoop.h"
#include "pond/testlib/Fixture.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

using namespace Routing::Multicast::Fib;

IpGenRouteKey sg() {
   return makeRouteKeyMroute(Gant::fromText<Pakto::Prefix>("10.0.0.1/32"),
                             Gant::fromText<Pakto::Prefix>("239.1.1.1/32"));
}

TEST(FibCounter, EqualityTextAndPondString) {
   Counter a(sg()), b(sg());
   a.valueIs(5);
   b.valueIs(5);
   EXPECT_EQ(a, b);
   b.lastRefreshTimeIs(1.0);
   EXPECT_NE(a, b) << "differs only in lastRefreshTime";
   Counter n(sg()), m(sg());
   n.lastRefreshTimeIs(std::nan(""));
   m.lastRefreshTimeIs(std::nan(""));
   EXPECT_NE(n, m) << "NaN is never equal";
   EXPECT_EQ(a.pondString(), "[239.1.1.1/32,10.0.0.1/32] 5");
   EXPECT_EQ(Gant::toText(a), "Value('Routing::Multicast::Fib::Counter', ** {'key': "
                              "Value('Routing::Multicast::Fib::IpGenRouteKey', ** {'s': 10.0.0.1/32, 'g': "
                              "239.1.1.1/32}), 'value': 5, 'lastRefreshTime': 0.0, 'active': False})");
   EXPECT_EQ(Gant::fromText<Counter>(Gant::toText(a)), a);
}

TEST(FibCounter, StatusTableTracesUnderItsOperationNames) {
   Loop::EpollLoop loop;
   Flashlog::Capture capture("counterIs=8,counterDel=8,counterNotify=8");
   auto status = counterStatusFactory("counters");
   std::vector<std::string> names;
   for (auto* h : Flashlog::handles()) names.push_back(h->name());
   for (const char* op : {"counterIs", "counterDel", "counterNotify"})
      EXPECT_NE(std::find(names.begin(), names.end(), op), names.end()) << op;
   status->openWriter("routing/multicast/counter/test", &loop, Pond::Test::uniqueOptions());
   Counter c(sg());
   c.valueIs(9);
   status->counterIs(c);
   status->counterNotify(sg());
   status->counterDel(sg());
   EXPECT_EQ(capture.lines(), (std::vector<std::string>{"(10.0.0.1,239.1.1.1)", "(10.0.0.1,239.1.1.1)",
                                                        "(10.0.0.1,239.1.1.1)"}));
   status->tableWriter()->unlink();
}

} // namespace

namespace Gant::Test {

using Routing::Multicast::Fib::Counter;

template <>
struct ValueSamples<Counter> : Samples<Counter> {
   static std::vector<Counter> distinct() {
      Counter a(Routing::Multicast::Fib::makeRouteKeyVlanFloodset(3)), b = a, c = a;
      b.valueIs(UINT64_MAX);
      c.activeIs(true);
      c.lastRefreshTimeIs(-2.5);
      return {Counter(), a, b, c};
   }
   static std::vector<std::string> badTexts() { return {"Value('Routing::Multicast::Fib::Counter', ** {})"}; }
};

INSTANTIATE_TYPED_TEST_SUITE_P(FibCounter, ValueContract, ::testing::Types<Counter>);

} // namespace Gant::Test
