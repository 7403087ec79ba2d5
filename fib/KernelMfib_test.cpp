#include "fib/KernelMfib.h"

#include <gtest/gtest.h>

namespace {

using namespace Routing::KernelMfib;

TEST(KernelMfib, CollectionStartsWithDefaultVrfAndRefusesLongNames) {
   auto c = statusCollFactory("status");
   ASSERT_EQ(c->vrfStatusSize(), 1u);
   EXPECT_TRUE(c->vrfStatusHas(L3::VrfName("default")));
}

} // namespace
