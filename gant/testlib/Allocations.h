#pragma once
// The test program counts its operator new calls: Allocations.cpp replaces
// the global forms (they count, then allocate as usual), so that a test can
// read the count around work that must not allocate.
#include <cstddef>

namespace Gant::Test {

// Calls of any operator new so far, from every thread.
std::size_t allocations() noexcept;

} // namespace Gant::Test
