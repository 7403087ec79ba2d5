#include "pond/testlib/Burst.h"
#include "pond/testlib/Fixture.h"

#include <sys/wait.h>
#include <unistd.h>

namespace Pond::Test {

BurstSeen burstIntoSleepingReader(const std::string& path, uint32_t changes) {
   Options options = uniqueOptions();
   TableShape shape = itemShape(2048, 2048);
   Loop::EpollLoop loop;
   TableWriter writer(path, shape, {Record<Item>::codec()}, &loop, options);
   MapWriter<Item> items(writer.collection(0));
   int fds[2];
   if (::pipe(fds) != 0) return {};
   pid_t pid = ::fork();
   if (pid == 0) {
      struct Count : TableHandler {
         uint64_t n = 0;
         void onChange(std::size_t, const void*) override { ++n; }
      } count;
      Loop::EpollLoop readerLoop;
      TableReader reader(path, shape, {Record<Item>::codec()}, readerLoop, count, options);
      readerLoop.runUntil([&] { return reader.ready(); }, 10);
      const uint64_t w0 = reader.wakeups(), n0 = count.n;
      readerLoop.runUntil([&] { return count.n - n0 >= changes; }, 30);
      BurstSeen seen{reader.wakeups() - w0, count.n - n0, true};
      (void)!::write(fds[1], &seen, sizeof seen);
      ::_exit(0);
   }
   loop.runUntil([&] { return writer.armedReaders() == 1; }, 10);
   for (uint32_t k = 0; k < changes; ++k) items.set(Item::make(k, 1));
   int status = 0;
   while (::waitpid(pid, &status, WNOHANG) == 0) loop.runOnce(0.001);
   BurstSeen seen;
   if (::read(fds[0], &seen, sizeof seen) != ssize_t(sizeof seen)) seen = {};
   ::close(fds[0]);
   ::close(fds[1]);
   writer.unlink();
   return seen;
}

} // namespace Pond::Test
