#include "group/Group.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace Multicast::Group {
namespace {

using MrouteLib::PortVlan;

struct MemberLog : Request::Reactor {
   using Request::Reactor::Reactor;
   void onPortVlan(const PortVlan& pv) override { seen.push_back(pv); }
   std::vector<PortVlan> seen;
};

struct RequestLog : Config::Reactor {
   using Config::Reactor::Reactor;
   void onRequest(const GroupKey& k) override { seen.push_back(k); }
   std::vector<GroupKey> seen;
};

PortVlan member(const char* port, uint32_t outLif) {
   return PortVlan(Gant::fromText<Pakto::IntfId>(port), outLif, 0);
}

TEST(GroupRequest, MembersAreOneEntryEachInOrderAndNotifyOnChange) {
   auto config = configFactory("client");
   const GroupKey key(uint16_t(McastGroupKind::mcastGroupKindTapAgg), 5, 77);
   auto request = config->requestIs(key);
   EXPECT_EQ(config->requestIs(key), request) << "the existing request, not a new one";
   MemberLog log(request.ptr());

   const PortVlan e2v10 = member("Ethernet2", 10), e1v20 = member("Ethernet1", 20), e1v10 = member("Ethernet1", 10);
   request->portVlanIs(e2v10, true);
   request->portVlanIs(e2v10, true);
   request->portVlanIs(e1v20, true);
   request->portVlanIs(e1v10, true);
   EXPECT_EQ(request->portVlanSize(), 3u);
   EXPECT_EQ(log.seen, (std::vector<PortVlan>{e2v10, e1v20, e1v10})) << "the repeated member notified once";

   std::vector<PortVlan> order;
   for (const auto& [pv, on] : request->portVlan()) order.push_back(pv);
   EXPECT_EQ(order, (std::vector<PortVlan>{e1v10, e1v20, e2v10})) << "by port, then out-LIF";

   log.seen.clear();
   request->portVlanDel(request->portVlan().find(e1v20));
   EXPECT_FALSE(request->portVlanHas(e1v20));
   EXPECT_EQ(log.seen, (std::vector<PortVlan>{e1v20}));
}

TEST(GroupRequest, DeletingARequestLeavesItsResponse) {
   auto config = configFactory("client");
   auto status = statusFactory("server");
   RequestLog log(config.ptr());
   const GroupKey key(uint16_t(McastGroupKind::mcastGroupKindTapAggLimitRange), 1);
   config->requestIs(key)->requestIdIs(4);
   auto response = status->responseIs(key);
   response->requestIdIs(4);
   response->successIs(true);
   response->multicastIdIs(0x1234);

   config->requestDel(key);
   EXPECT_FALSE(config->requestHas(key));
   EXPECT_EQ(log.seen, (std::vector<GroupKey>{key, key})) << "created, then deleted";
   ASSERT_TRUE(status->responseHas(key)) << "the server decides when to remove it";
   EXPECT_EQ(status->response(key)->multicastId(), 0x1234u);
   EXPECT_EQ(response->parent(), status.ptr());
}

TEST(GroupRequest, IdentifiersWrapAt32Bits) {
   auto request = configFactory("client")->requestIs(GroupKey(19, 1));
   request->requestIdIs(std::numeric_limits<uint32_t>::max());
   request->requestIdInc(1);
   EXPECT_EQ(request->requestId(), 0u);
   auto response = statusFactory("server")->responseIs(GroupKey(19, 1));
   response->responseIdIs(std::numeric_limits<uint32_t>::max() - 1);
   response->responseIdInc(3);
   EXPECT_EQ(response->responseId(), 1u);
}

} // namespace
} // namespace Multicast::Group
