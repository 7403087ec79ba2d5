// The cross-process stress in one process, with a writer thread and reader
// threads on separate mappings of one segment, so that ThreadSanitizer can
// follow every access (it cannot follow memory across processes).
#include "pond/testlib/Fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using namespace Pond;
using namespace Pond::Test;

constexpr uint32_t kKeys = 4000;
constexpr uint32_t kDone = Follower::kDone;

TEST(PondThreads, WriterThreadAndReaderThreadsOnSeparateMappings) {
   const Options options = uniqueOptions();
   const std::string path = "routing/multicast/routestatus/default/threads";
   const TableShape shape{"Pond::Test::ItemTable", {Record<Item>::shape("item", kKeys + 1)}};
   std::atomic<bool> writerUp{false};
   std::atomic<int> readersDone{0};
   constexpr int kReaders = 3;
   const uint32_t rounds = 5;

   std::thread writerThread([&] {
      Loop::EpollLoop loop;
      TableWriter writer(path, shape, {Record<Item>::codec()}, &loop, options);
      MapWriter<Item> items(writer.collection(0));
      writerUp = true;
      for (uint32_t v = 1; v <= rounds; ++v)
         for (uint32_t k = 0; k < kKeys; ++k) {
            items.set(Item::make(k, v));
            if (k % 256 == 0) loop.runOnce(0);
         }
      items.set(Item::make(kDone, rounds));
      while (readersDone < kReaders) loop.runOnce(0.005);
      writer.unlink();
   });

   std::vector<std::thread> readerThreads;
   std::vector<int> results(kReaders, -1);
   for (int r = 0; r < kReaders; ++r) {
      readerThreads.emplace_back([&, r] {
         while (!writerUp) std::this_thread::yield();
         Follower follower;
         Loop::EpollLoop loop;
         TableReader reader(path, shape, {Record<Item>::codec()}, loop, follower, options);
         follower.reader = &reader;
         loop.runUntil([&] { return follower.finished(); }, 60);
         reader.poll();
         results[r] = follower.verdict(kKeys);
         ++readersDone;
      });
   }
   for (auto& t : readerThreads) t.join();
   writerThread.join();
   EXPECT_EQ(results, std::vector<int>(kReaders, 0)) << "2 timeout, 3 torn, 4 damaged, 5/6 lost change";
}

} // namespace
