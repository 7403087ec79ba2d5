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

PortVlan member(const char* port, uint32_t outLif) {
   return PortVlan(Gant::fromText<Pakto::IntfId>(port), outLif, 0);
}

TEST(GroupRequest, MembersResponsesAndIdentifiers) {
   auto config = configFactory("client");
   auto status = statusFactory("server");
   const GroupKey key(19, 5, 77);
   auto request = config->requestIs(key);
   EXPECT_EQ(config->requestIs(key), request) << "the existing request, not a new one";
   MemberLog log(request.ptr());
   const PortVlan e2v10 = member("Ethernet2", 10), e1v20 = member("Ethernet1", 20), e1v10 = member("Ethernet1", 10);
   for (const PortVlan& pv : {e2v10, e2v10, e1v20, e1v10}) request->portVlanIs(pv, true);
   EXPECT_EQ(log.seen, (std::vector<PortVlan>{e2v10, e1v20, e1v10})) << "the repeated member notified once";
   EXPECT_EQ(request->portVlan().begin()->first, e1v10) << "by port, then out-LIF";
   request->portVlanDel(request->portVlan().find(e1v20));
   EXPECT_EQ(log.seen.back(), e1v20);
   EXPECT_EQ(request->portVlanSize(), 2u);

   status->responseIs(key)->multicastIdIs(0x1234);
   config->requestDel(key);
   ASSERT_TRUE(status->responseHas(key)) << "the server decides when to remove it";
   EXPECT_EQ(status->response(key)->multicastId(), 0x1234u);

   request->requestIdIs(std::numeric_limits<uint32_t>::max());
   request->requestIdInc(1);
   EXPECT_EQ(request->requestId(), 0u);
}

} // namespace
} // namespace Multicast::Group
