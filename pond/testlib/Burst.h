#pragma once
// A burst of changes to a table while its reader, in another process,
// sleeps: what the reader saw. Shared by the wake-up test and benchmark.
#include "pond/Table.h"

#include <cstdint>
#include <string>

namespace Pond::Test {

struct BurstSeen {
   uint64_t wakeups = 0;
   uint64_t changes = 0;
   bool ok = false; // the reader process finished and reported
};

// Writes `changes` records in one go, without turning the writer's loop.
BurstSeen burstIntoSleepingReader(const std::string& path, uint32_t changes);

} // namespace Pond::Test
