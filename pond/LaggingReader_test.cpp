// A reader far behind a writer that inserts, rewrites and removes keys at
// full speed, with a queue short enough to be lapped again and again, even
// during the passes that recover from a lap. What the reader's handler
// learns by looking up each key it is told of must end equal to the table.
// MCASTFIB_STRESS_SECONDS=N runs it for N seconds instead of one.
#include "pond/testlib/Fixture.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <random>

namespace {

using namespace Pond;
using namespace Pond::Test;

constexpr uint32_t kKeys = 12000;
constexpr uint32_t kDone = Follower::kDone;

TableShape shape() { return {"Pond::Test::ItemTable", {Record<Item>::shape("item", kKeys + 1, 256)}}; }

double seconds() {
   const char* s = std::getenv("MCASTFIB_STRESS_SECONDS");
   return s ? std::atof(s) : 1.0;
}

// Random inserts, rewrites and removes for `duration`, then the done record;
// then stays until killed, so that the table outlives the reader's check.
[[noreturn]] void writerProcess(const std::string& path, const Options& options, double duration, unsigned seed) {
   Loop::EpollLoop loop;
   TableWriter writer(path, shape(), {Record<Item>::codec()}, &loop, options);
   MapWriter<Item> items(writer.collection(0));
   std::mt19937 rng(seed);
   const double end = loop.now() + duration;
   uint32_t version = 0;
   for (uint64_t op = 0;; ++op) {
      const uint32_t key = rng() % kKeys;
      if (rng() % 3 == 0) items.del(key);
      else items.set(Item::make(key, ++version));
      if (op % 256 == 0) {
         loop.runOnce(0);
         if (loop.now() > end) break;
      }
   }
   items.set(Item::make(kDone, version));
   for (;;) loop.runOnce(1);
}

// A slow consumer: the writer laps the queue while it works.
struct Lagging : Follower {
   uint64_t told = 0;
   void onChange(std::size_t c, const void* k) override {
      Follower::onChange(c, k);
      if (++told % 64 == 0) ::usleep(200);
   }
};

TEST(PondLaggingReader, EveryChangeReachesAReaderThatKeepsFallingBehind) {
   const Options options = uniqueOptions();
   const std::string path = "routing/multicast/routestatus/default/lagging";
   const pid_t writer = ::fork();
   if (writer == 0) writerProcess(path, options, seconds(), unsigned(::getpid()));
   const KillOnExit reap{writer};

   Lagging view;
   Loop::EpollLoop loop;
   TableReader reader(path, shape(), {Record<Item>::codec()}, loop, view, options);
   view.reader = &reader;
   loop.runUntil([&] { return view.finished(); }, 60 + 2 * seconds());
   reader.poll(); // what was queued behind the done record
   ASSERT_FALSE(view.torn || view.corrupt) << "torn " << view.torn << ", damaged " << view.corrupt;
   ASSERT_TRUE(view.done) << "the writer's done record never arrived";
   EXPECT_GT(reader.resyncs(), 3u) << "the queue was never lapped: the test proves nothing";
   // The table now, read directly, against what the notifications taught.
   std::map<uint32_t, uint32_t> table;
   MapReader<Item> items(reader.collection(0));
   for (uint32_t k = 0; k < kKeys; ++k)
      if (auto f = items.find(k)) table[k] = f->version();
   view.known.erase(kDone);
   EXPECT_TRUE(view.known == table) << "a key whose last change the reader never heard of, after "
                                    << reader.resyncs() << " resyncs";
   Segment::unlink(segmentName(options.prefix, path));
}

} // namespace
