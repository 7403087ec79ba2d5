// The request path allocates nothing once the allocator has started and its
// structures have grown to their size: operator new is counted here for the
// whole test program (counting only; it allocates as usual).
#include "bitmapper/BitMapperSm.h"
#include "pond/testlib/Fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
// Atomic: the test program's threaded tests allocate from several threads.
std::atomic<std::size_t> allocations{0};
}

// Every form that a plain delete may free is replaced, so that no block
// allocated by the runtime's own new is given to free (the address
// sanitizer reports that pair). Out of line, so that the compiler never
// pairs an inlined malloc with an inlined free and takes them for a
// mismatched new and delete.
[[gnu::noinline]] void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
   allocations.fetch_add(1, std::memory_order_relaxed);
   return std::malloc(n ? n : 1);
}
[[gnu::noinline]] void* operator new(std::size_t n) {
   if (void* p = operator new(n, std::nothrow)) return p;
   throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new[](std::size_t n, const std::nothrow_t&) noexcept {
   return operator new(n, std::nothrow);
}
[[gnu::noinline]] void* operator new[](std::size_t n) { return operator new(n); }
[[gnu::noinline]] void operator delete(void* p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete[](void* p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }

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
   const std::size_t before = allocations;
   ASSERT_GT(before, 0u) << "operator new is counted";
   for (int i = 0; i < 10; ++i) round();
   EXPECT_EQ(allocations, before);
   EXPECT_EQ(status->bitIndexSize(), 0u);
   EXPECT_EQ(pond->bitIndexMapSize() + pond->waitlistMapSize(), 0u);
}

} // namespace
