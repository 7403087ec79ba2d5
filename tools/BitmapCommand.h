#pragma once
#include <iosfwd>
#include <span>
#include <string>

namespace Tool {
// mcastfib bitmap: a bit index allocator's table, read from another
// process: each held index with its key, holders and new-mapping flag, then
// the keys waiting for an index.
int bitmapCommand(std::span<const std::string> args, std::ostream& out);
extern const char* const bitmapDetails;
} // namespace Tool
