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
constexpr uint32_t kDone = 0xffffffff;

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

struct View : TableHandler {
   TableReader* reader = nullptr;
   std::map<uint32_t, uint32_t> known; // key -> version, from lookups on notification only
   uint64_t told = 0;
   bool done = false, bad = false;
   std::string why;
   void onChange(std::size_t, const void* k) override {
      const uint32_t key = keyOf<Item>(k);
      auto f = MapReader<Item>(reader->collection(0)).find(key);
      if (f) known[key] = f->version();
      else if (f.status == ReadStatus::absent) known.erase(key);
      else {
         bad = true;
         why = std::string("a lookup of key ") + std::to_string(key) + " was " + readStatusName(f.status);
      }
      done |= key == kDone && f;
      // A slow consumer: the writer laps the queue while we work.
      if (++told % 64 == 0) ::usleep(200);
   }
   void onCorrupt(const std::string& what) override {
      bad = true;
      why = what;
   }
};

TEST(PondLaggingReader, EveryChangeReachesAReaderThatKeepsFallingBehind) {
   const Options options = uniqueOptions();
   const std::string path = "routing/multicast/routestatus/default/lagging";
   const pid_t writer = ::fork();
   if (writer == 0) writerProcess(path, options, seconds(), unsigned(::getpid()));
   const KillOnExit reap{writer};

   View view;
   Loop::EpollLoop loop;
   TableReader reader(path, shape(), {Record<Item>::codec()}, loop, view, options);
   view.reader = &reader;
   loop.runUntil([&] { return view.done || view.bad; }, 60 + 2 * seconds());
   reader.poll(); // what was queued behind the done record
   ASSERT_FALSE(view.bad) << view.why;
   ASSERT_TRUE(view.done) << "the writer's done record never arrived";
   EXPECT_GT(reader.resyncs(), 3u) << "the queue was never lapped: the test proves nothing";

   // The table now, read directly, against what the notifications taught.
   std::map<uint32_t, uint32_t> table;
   MapReader<Item> items(reader.collection(0));
   for (uint32_t k = 0; k < kKeys; ++k)
      if (auto f = items.find(k)) table[k] = f->version();
   view.known.erase(kDone);
   std::vector<uint32_t> wrong;
   for (uint32_t k = 0; k < kKeys; ++k) {
      auto a = view.known.find(k), b = table.find(k);
      const bool same = (a == view.known.end()) == (b == table.end()) && (a == view.known.end() || a->second == b->second);
      if (!same) wrong.push_back(k);
   }
   EXPECT_TRUE(wrong.empty()) << wrong.size() << " keys whose last change the reader never heard of (first: "
                              << (wrong.empty() ? 0 : wrong[0]) << "), after " << reader.resyncs() << " resyncs";
   Segment::unlink(segmentName(options.prefix, path));
}

} // namespace
