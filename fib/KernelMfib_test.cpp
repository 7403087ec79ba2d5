#include "fib/KernelMfib.h"

#include <gtest/gtest.h>

namespace {

using namespace Routing::KernelMfib;

TEST(KernelMfib, CollectionStartsWithDefaultVrfAndRefusesLongNames) {
   auto c = statusCollFactory("status");
   ASSERT_EQ(c->vrfStatusSize(), 1u);
   EXPECT_TRUE(c->vrfStatusHas(L3::VrfName("default")));
   EXPECT_THROW(c->vrfStatusIs(L3::VrfName(std::string(101, 'x'))), Gant::RangeError);
   EXPECT_EQ(c->vrfStatusSize(), 1u);
   EXPECT_EQ(statusFactory(L3::VrfName("red"))->intfIdColl(4), Pakto::IntfId()) << "an absent index reads as none";
}

} // namespace
