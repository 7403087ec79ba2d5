#include "gant/testlib/Allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
// Atomic: the test program's threaded tests allocate from several threads.
std::atomic<std::size_t> count{0};
} // namespace

std::size_t Gant::Test::allocations() noexcept { return count.load(std::memory_order_relaxed); }

// Every form that a plain delete may free is replaced, so that no block
// allocated by the runtime's own new is given to free (the address
// sanitizer reports that pair). Out of line, so that the compiler never
// pairs an inlined malloc with an inlined free and takes them for a
// mismatched new and delete. This file is linked in by the first test that
// reads the count.
[[gnu::noinline]] void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
   count.fetch_add(1, std::memory_order_relaxed);
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
