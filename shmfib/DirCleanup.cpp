#include "shmfib/DirCleanup.h"

#include "shmfib/DirTable.h"
#include "shmfib/RouteTable.h"
#include "sys/Calls.h"

namespace Pond::Multicast::Fib {

std::vector<std::string> removeDeadProducer(Pakto::AddressFamily af, const std::string& app,
                                            const Pond::Options& options) {
   const std::string dirPath = MfibDirTable::mountPath(af, app);
   const std::string dirSegment = Pond::segmentName(options.prefix, dirPath);
   const Sys::Result there = Sys::calls().shm_open(dirSegment.c_str(), O_RDONLY | O_CLOEXEC, 0);
   if (!there.ok()) throw Gant::TableError("no producer " + app + " (" + dirSegment + ")");
   Sys::discard(Sys::calls().close(static_cast<int>(there.value)));
   // Taking the writer's place proves the producer gone: its lock is free.
   auto dir = mfibDirTableFactory(Gant::Name(app));
   dir->openWriter(dirPath, nullptr, options);
   std::vector<std::string> urls;
   dir->dirCollForEach([&](const MfibDirEntry& row) {
      if (!row.pondUrl().empty()) urls.push_back(row.pondUrl().str());
   });
   std::vector<std::string> removed;
   for (const std::string& url : urls) {
      auto table = statusFactory(Gant::Name(app));
      table->openWriter(url, nullptr, options);
      table->tableWriter()->unlink();
      removed.push_back(url);
   }
   dir->tableWriter()->unlink();
   removed.push_back(dirPath);
   return removed;
}

} // namespace Pond::Multicast::Fib
