#include "tools/BitmapCommand.h"

#include "tools/Commands.h"
#include "tools/TableCommand.h"

#include "bitmapper/BitMapper.h"
#include "loop/EpollLoop.h"

#include <iomanip>
#include <map>
#include <ostream>
#include <sstream>

namespace Tool {

const char* const bitmapDetails =
    "TABLE is the allocator table's mount path under PREFIX (default mcastfib), its\n"
    "segment (/mcastfib.PATH) or its file in /dev/shm. Prints whether its writer\n"
    "is alive, each held index in increasing order with its key (interface and\n"
    "address), holders and whether the latest allocation created the mapping,\n"
    "then the waiting keys with their waiting requests.";

namespace {

std::string keyText(const BitMapper::BitMapperKey& k) {
   std::ostringstream s;
   s << k.intfId().name() << ' ' << k.ipGenAddr();
   return s.str();
}

} // namespace

int bitmapCommand(std::span<const std::string> args, std::ostream& out) {
   const Location at = locateArgs(args);
   Loop::EpollLoop loop;
   Pond::Options options;
   options.prefix = at.prefix;
   auto table = BitMapper::pondStatusFactory(Gant::Name("bitmap"));
   table->openReader(at.mountPath, loop, options);
   loop.runUntil([&] { return table->tableReady() || !table->corruption().empty(); }, 2);
   if (!table->tableReady())
      throw std::runtime_error("cannot read " + at.segment + ": " +
                               (table->corruption().empty() ? "no such table" : table->corruption()));
   std::map<uint16_t, BitMapper::BitIndexMap> rows;
   table->bitIndexMapForEach([&](const BitMapper::BitIndexMap& r) { rows[r.key().value()] = r; });
   std::map<std::string, uint32_t> waiting;
   table->waitlistMapForEach([&](const BitMapper::WaitlistMap& r) { waiting[keyText(r.key())] = r.refCount(); });
   out << "table " << at.mountPath << " (" << at.segment << "), writer "
       << (table->writerAlive() ? "alive" : "gone") << "\n"
       << rows.size() << " held, " << waiting.size() << " waiting\n";
   out << std::left << std::setw(7) << "index" << std::setw(40) << "key" << std::setw(9) << "holders" << "new\n";
   for (const auto& [index, r] : rows)
      out << std::setw(7) << index << std::setw(40) << keyText(r.bitMapperKey()) << std::setw(9) << r.refCount()
          << (r.isNewMapping() ? "yes" : "no") << "\n";
   if (!waiting.empty()) out << "waiting\n";
   for (const auto& [key, count] : waiting) out << "       " << std::setw(40) << key << count << "\n";
   return 0;
}

} // namespace Tool
