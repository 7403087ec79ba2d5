#pragma once
#include <iosfwd>
#include <span>
#include <string>

namespace Tool {
// mcastfib watch-upcalls: the kernel's multicast-routing upcalls of one
// family and namespace, printed as they come, with counts at the end.
int watchUpcallsCommand(std::span<const std::string> args, std::ostream& out);
extern const char* const watchUpcallsSynopsis;
extern const char* const watchUpcallsDetails;
} // namespace Tool
