#pragma once
// The last lines traced by this process, kept in memory for diagnostics: a
// fixed number of slots, the oldest overwritten. Text longer than a slot is
// cut in the ring only; sinks and captures get it whole.
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Flashlog {

class Handle;

struct Line {
   std::string handle;
   int level = 0;
   std::string text;

   bool operator==(const Line&) const = default;
};

constexpr std::size_t ringLines = 4096;
constexpr std::size_t ringTextBytes = 240;

// The lines held, oldest first.
std::vector<Line> ring();
// Forgets the lines held so far.
void clearRing();
// Adds one line; called for every enabled trace.
void ringAppend(const Handle& handle, int level, std::string_view text) noexcept;

} // namespace Flashlog
