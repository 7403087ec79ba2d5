#include "fib/Counter.h"
#include "flashlog/Capture.h"
#include "loop/EpollLoop.h"
#include "pond/testlib/Fixture.h"

#include <gtest/gtest.h>

namespace {

using namespace Routing::Multicast::Fib;

IpGenRouteKey sg() {
   return makeRouteKeyMroute(Gant::fromText<Pakto::Prefix>("10.0.0.1/32"),
                             Gant::fromText<Pakto::Prefix>("239.1.1.1/32"));
}

TEST(FibCounter, PondString) {
   Counter a(sg());
   a.valueIs(5);
   EXPECT_EQ(a.pondString(), "[239.1.1.1/32,10.0.0.1/32] 5");
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
