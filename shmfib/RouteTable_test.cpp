// The route table as an entity over shared memory: a producer's writer
// entity and an agent's reader entity of the same table.
#include "loop/EpollLoop.h"
#include "shmfib/RouteTable.h"
#include "shmfib/testlib/Tables.h"

#include <gtest/gtest.h>

namespace {

using namespace Pond::Multicast::Fib;
using Routing::Multicast::Fib::IpGenRouteKey;
using Test::sg;

struct Watch : Status::Reactor {
   using Status::Reactor::Reactor;
   std::vector<IpGenRouteKey> routes;
   int status = 0;
   void onRoute(const IpGenRouteKey& k) override { routes.push_back(k); }
   void onTableStatus() override { ++status; }
};

TEST(ShmRouteTable, ProducerWritesAgentsReadThroughEntities) {
   Loop::EpollLoop loop;
   Pond::Options options = Pond::Test::uniqueOptions();
   const auto path = Status::mountPath(Pakto::AddressFamily::ipv4, L3::VrfName("default"), "pim");
   auto producer = statusFactory("pim");
   producer->openWriter(path, &loop, options);
   Watch own(producer.ptr());

   auto agent = statusFactory("pim");
   agent->openReader(path, loop, options);
   Watch seen(agent.ptr());
   loop.runUntil([&] { return agent->tableReady(); }, 5);
   ASSERT_TRUE(agent->tableReady());
   EXPECT_EQ(seen.status, 1);

   Route r(sg(1));
   r.iifIs(Pakto::IntfId("Ethernet1"));
   r.oifIs(5, true);
   r.maxOifIndexIs(5);
   producer->routeIs(r);
   producer->routeIs(r); // unchanged: nothing
   OifIndexIntf o(OifIndex(5));
   o.intfIs(Pakto::IntfId("Ethernet5"));
   producer->oifIndexIntfIs(o);
   Route& staged = producer->routeModify(sg(1));
   staged.versionIs(2);
   producer->routeCommit(&staged);
   EXPECT_EQ(own.routes, (std::vector<IpGenRouteKey>{sg(1), sg(1)}));

   loop.runUntil([&] { return seen.routes.size() >= 2; }, 5);
   EXPECT_EQ(seen.routes, (std::vector<IpGenRouteKey>{sg(1), sg(1)}));
   auto got = agent->route(sg(1));
   ASSERT_TRUE(got);
   EXPECT_EQ(got->version(), 2u);
   EXPECT_EQ(got->iif(), Pakto::IntfId("Ethernet1"));
   EXPECT_EQ(agent->oifIndexIntf(OifIndex(5))->intf(), Pakto::IntfId("Ethernet5"));
   EXPECT_EQ(agent->routeSize(), 1u);
   EXPECT_THROW(agent->routeIs(r), Gant::UnsupportedOperation) << "readers never write";

   producer->routeDelAll();
   loop.runUntil([&] { return seen.routes.size() >= 3; }, 5);
   EXPECT_EQ(agent->route(sg(1)).status, Pond::ReadStatus::absent);
   EXPECT_EQ(agent->attr("route").as<uint32_t>(), 0u);
   producer->tableWriter()->unlink();
}

TEST(ShmRouteTable, MountInfo) {
   Pond::TableShape info = TableInfo::mfibMountInfo();
   ASSERT_EQ(info.collections.size(), 2u);
   EXPECT_EQ(info.collections[0].name, "route");
   EXPECT_EQ(info.collections[0].capacity, 12000u);
   EXPECT_EQ(info.collections[1].name, "oifIndexIntf");
   EXPECT_EQ(info.collections[1].capacity, 1024u);
   // The segment stays within 1.5 times what its records need.
   const auto layout = Pond::layoutFor(info);
   const double records = 12000.0 * sizeof(Route) + 1024.0 * sizeof(OifIndexIntf);
   EXPECT_LE(double(layout.segmentSize), 1.5 * records);
}

} // namespace
