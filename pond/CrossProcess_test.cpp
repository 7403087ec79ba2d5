// Real processes on one table: a writer at full speed, readers that check
// every record they read is whole and that every change reaches them, and
// processes killed in the middle.
#include "pond/testlib/Burst.h"
#include "pond/testlib/Fixture.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Pond;
using namespace Pond::Test;

constexpr uint32_t kKeys = 12000;
constexpr uint32_t kDone = Follower::kDone;

TableShape shape() { return {"Pond::Test::ItemTable", {Record<Item>::shape("item", kKeys + 1)}}; }

// A reader process: follows the table until the done record appears, then
// checks that what it was told matches the table. Exit code 0 when it does.
[[noreturn]] void readerProcess(const std::string& path, const Options& options, bool expectWriterDeath) {
   Follower follower;
   Loop::EpollLoop loop;
   TableReader reader(path, shape(), {Record<Item>::codec()}, loop, follower, options);
   follower.reader = &reader;
   loop.runUntil([&] { return follower.finished(); }, 60);
   // The done record can arrive through a resynchronising pass before
   // changes queued ahead of it: take in whatever is still queued.
   reader.poll();
   // A reader that waited out a slot the dead writer left may hear of the
   // next writer's done record before its loop turns to the closed connection.
   for (int i = 0; i < 50 && expectWriterDeath && follower.gone == 0; ++i) loop.runOnce(0.01);
   const int rc = follower.verdict(kKeys);
   ::_exit(rc == 0 && expectWriterDeath && follower.gone == 0 ? 7 : rc);
}

pid_t startReader(const std::string& path, const Options& options, bool expectWriterDeath = false) {
   pid_t pid = ::fork();
   if (pid == 0) readerProcess(path, options, expectWriterDeath);
   return pid;
}

// Writes every key at `version`, serving the loop now and then.
void writeRound(MapWriter<Item>& items, Loop::EpollLoop& loop, uint32_t version) {
   for (uint32_t k = 0; k < kKeys; ++k) {
      items.set(Item::make(k, version));
      if (k % 512 == 0) loop.runOnce(0);
   }
}

// Four readers that mount while the writer runs at full speed, and one killed
// after the first round, which must not disturb the writer or the others.
TEST(PondCrossProcess, FourReadersFollowAWriterAtFullSpeedAndOneKilledHurtsNone) {
   Options options = uniqueOptions();
   const std::string path = "routing/multicast/routestatus/default/check";
   Loop::EpollLoop loop;
   TableWriter writer(path, shape(), {Record<Item>::codec()}, &loop, options);
   MapWriter<Item> items(writer.collection(0));
   const pid_t victim = startReader(path, options);
   while (writer.readers() < 1) loop.runOnce(0.01);
   std::vector<pid_t> readers;
   for (int i = 0; i < 4; ++i) readers.push_back(startReader(path, options));
   writeRound(items, loop, 1);
   ::kill(victim, SIGKILL);
   EXPECT_EQ(exitCode(victim), 100 + SIGKILL);
   for (uint32_t v = 2; v <= 10; ++v) writeRound(items, loop, v);
   items.set(Item::make(kDone, 10));
   std::vector<int> codes;
   for (pid_t pid : readers) codes.push_back(exitCode(pid, &loop));
   EXPECT_EQ(codes, (std::vector<int>{0, 0, 0, 0})) << "2 timeout, 3 torn record, 4 corrupt, 5/6 lost change";
   EXPECT_TRUE(loop.runUntil([&] { return writer.readers() == 0; }, 5)) << "the dead reader's connection is gone too";
   writer.unlink();
}

TEST(PondCrossProcess, WriterKilledMidStreamAndRestarted) {
   Options options = uniqueOptions();
   const std::string path = "routing/multicast/routestatus/default/restart";
   std::vector<pid_t> readers;
   for (int i = 0; i < 2; ++i) readers.push_back(startReader(path, options, true));
   int connected[2];
   ASSERT_EQ(::pipe(connected), 0);
   pid_t first = ::fork();
   if (first == 0) {
      Loop::EpollLoop loop;
      TableWriter writer(path, shape(), {Record<Item>::codec()}, &loop, options);
      MapWriter<Item> items(writer.collection(0));
      bool told = false;
      for (uint32_t v = 1;; ++v) { // until killed
         writeRound(items, loop, v);
         if (!told && writer.readers() == 2) told = ::write(connected[1], "c", 1) == 1;
      }
   }
   // Killed mid-stream once both readers follow it, however slow the build.
   char c;
   ASSERT_EQ(::read(connected[0], &c, 1), 1);
   ::usleep(100 * 1000);
   ::kill(first, SIGKILL);
   EXPECT_EQ(exitCode(first), 100 + SIGKILL);

   Loop::EpollLoop loop;
   TableWriter writer(path, shape(), {Record<Item>::codec()}, &loop, options);
   EXPECT_TRUE(writer.recovered()) << "the second writer continues from the table";
   MapWriter<Item> items(writer.collection(0));
   EXPECT_GT(items.size(), 0u);
   writeRound(items, loop, 1000);
   items.set(Item::make(kDone, 1000));
   std::vector<int> codes;
   for (pid_t pid : readers) codes.push_back(exitCode(pid, &loop));
   EXPECT_EQ(codes, (std::vector<int>{0, 0})) << "exit 7: a reader did not notice the writer's death";
   writer.unlink();
}

TEST(PondCrossProcess, ABurstWakesASleepingReaderOnce) {
   const Pond::Test::BurstSeen seen =
       Pond::Test::burstIntoSleepingReader("routing/multicast/routestatus/default/burst", 1000);
   ASSERT_TRUE(seen.ok);
   EXPECT_EQ(seen.changes, 1000u);
   // Asleep at the start of the burst, perhaps once more if it caught up
   // half-way: never one per change.
   EXPECT_LE(seen.wakeups, 2u);
}

} // namespace
