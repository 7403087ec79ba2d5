#include "fib/PimIntf.h"

#include <gtest/gtest.h>

namespace {

using namespace Routing::Multicast::Fib;
using namespace Routing::Multicast::Fib::PimIntf;

TEST(FibPimIntfDeathTest, WildcardRoutesAreKeyedByTheirOwnKey) {
   auto status = PimIntf::statusFactory("status");
   auto e1 = status->intfStatusIs(Pakto::IntfId("Ethernet1"));
   auto key = makeRouteKeyMroute(Gant::fromText<Pakto::Prefix>("0.0.0.0/0"), Gant::fromText<Pakto::Prefix>("239.1.1.1/32"));
   Pond::Multicast::Fib::Route r(key);
   e1->toAddWcIs(r);
   EXPECT_EQ(e1->toAddWc(key), r);
   // A log that files a route under another key breaks the collection.
   Gant::LogWriter w;
   e1->gantLogWrite(w);
   std::string log = w.data();
   auto other = makeRouteKeyMroute(Gant::fromText<Pakto::Prefix>("0.0.0.0/0"), Gant::fromText<Pakto::Prefix>("239.1.1.2/32"));
   std::string stored = Gant::toLog(key), wrong = Gant::toLog(other);
   log.replace(log.find(stored), stored.size(), wrong);
   auto fresh = intfStatusFactory(Pakto::IntfId("Ethernet2"), nullptr);
   Gant::LogReader r2(log);
   EXPECT_DEATH(fresh->gantLogApply(r2), "fwkKey\\(\\) == KeyFunktor\\(\\)\\( _value \\)");
}

} // namespace
