#include "group/Group.h"
#include <gtest/gtest.h>

namespace {

using namespace Multicast::Group;

TEST(GroupRequest, MembersResponsesAndIdentifiers) {
   auto config = configFactory("client");
   auto status = statusFactory("server");
   const GroupKey key(19, 5, 77);
   auto request = config->requestIs(key);
   struct Log : Request::Reactor {
      using Request::Reactor::Reactor;
      void onPortVlan(const MrouteLib::PortVlan& pv) override { seen.push_back(pv); }
      std::vector<MrouteLib::PortVlan> seen;
   } log(request.ptr());
   const MrouteLib::PortVlan a(Pakto::IntfId("Ethernet2"), 10, 0), b(Pakto::IntfId("Ethernet1"), 20, 0);
   for (const MrouteLib::PortVlan& pv : {a, a, b}) request->portVlanIs(pv, true);
   request->portVlanDel(request->portVlan().find(b)); // by iterator: the key outlives the node
   EXPECT_EQ(log.seen, (std::vector<MrouteLib::PortVlan>{a, b, b})) << "the repeated member notified once";
   status->responseIs(key);
   config->requestDel(key);
   EXPECT_TRUE(status->responseHas(key)) << "the server decides when to remove it";
   request->requestIdIs(0xffffffffu);
   request->requestIdInc(1);
   EXPECT_EQ(request->requestId(), 0u);
}

} // namespace
