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

// Where a table is, from an argument naming its segment (/mcastfib.routing%2f...),
// its file in /dev/shm or its mount path under prefix.
struct Location {
   std::string segment; // "/" + prefix + "." + encoded mount path
   std::string prefix;
   std::string mountPath;
};
Location locate(const std::string& arg, const std::string& prefix);
// [--prefix PREFIX] TABLE
Location locateArgs(std::span<const std::string> args);
} // namespace Tool
