#pragma once
#include <iosfwd>
#include <span>
#include <string>

namespace Tool {
// mcastfib key: builds a route key from a kind and its fields, or reads a
// key as printed, and shows its kind, pretty text and text forms.
int keyCommand(std::span<const std::string> args, std::ostream& out);
extern const char* const keySynopsis;
extern const char* const keyDetails;
} // namespace Tool
