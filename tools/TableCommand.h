#pragma once
#include <iosfwd>
#include <span>
#include <string>

namespace Tool {
// mcastfib table dump|watch: the records of any shared-memory table, read
// from the layout its segment's header records, and (watch) its changes as
// they happen until the writer goes or a signal comes.
int tableCommand(std::span<const std::string> args, std::ostream& out);
extern const char* const tableSynopsis;
extern const char* const tableDetails;
} // namespace Tool
