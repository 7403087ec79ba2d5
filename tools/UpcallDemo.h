#pragma once
#include <iosfwd>

namespace Tool {
// The demo's kernel section (root only): a datagram with no route arriving
// in a network namespace reaches this process as a typed upcall.
void upcallDemo(std::ostream& out);
} // namespace Tool
