// The request path allocates nothing once the allocator has started and its
// structures have grown to their size.
#include "bitmapper/BitMapperSm.h"
#include "gant/testlib/Allocations.h"
#include "pond/testlib/Fixture.h"

#include <gtest/gtest.h>

namespace {

using namespace BitMapper;

struct NoAllocation : Pond::Test::TableTest {};

TEST_F(NoAllocation, RequestsAfterStartUp) {
   auto config = configFactory(2, true);
   auto status = statusFactory(Gant::Name("status"));
   auto pond = pondStatusFactory(Gant::Name("bitmap"));
   pond->openAllocatorTable(path, nullptr, options);
   auto sm = bitMapperSmFactory(config, status, pond);
   BitMapperKey keys[4];
   for (uint32_t n = 0; n < 4; ++n)
      keys[n] = BitMapperKey(Pakto::IntfId("Ethernet" + std::to_string(n + 1)), Pakto::IpGenAddr());
   auto request = [&](bool alloc, int n) {
      if (alloc) {
         config->allocRequestKeyIs(keys[n]);
         config->allocRequestCountInc();
      } else {
         config->deallocRequestKeyIs(keys[n]);
         config->deallocRequestCountInc();
      }
   };
   // Holders, a shared index, two waiting keys, and the hand-over to them.
   auto round = [&] {
      for (int n : {0, 1, 1, 2, 3, 3}) request(true, n);
      for (int n : {0, 1, 1, 2, 3, 3}) request(false, n);
   };
   round(); // grows every structure to what the round needs
   const std::size_t before = Gant::Test::allocations();
   ASSERT_GT(before, 0u) << "operator new is counted";
   for (int i = 0; i < 10; ++i) round();
   EXPECT_EQ(Gant::Test::allocations(), before);
   EXPECT_EQ(status->bitIndexSize(), 0u);
   EXPECT_EQ(pond->bitIndexMapSize() + pond->waitlistMapSize(), 0u);
}

} // namespace
