// Tables against another local user and against damage: squatted names,
// locks others take, untrusted segments, a writer that is slow rather than
// dead, an index no writer left, truncation under the writer, bytes changed
// behind the writer's back. Real processes; "another user" is uid 65534.
#include "pond/WriterLock.h"
#include "pond/testlib/Fixture.h"
#include "gant/testlib/Thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <thread>

namespace {

using namespace Pond;
using namespace Pond::Test;

constexpr uid_t kStranger = 65534;

struct PondHostile : TableTest {
   std::unique_ptr<TableWriter> openWriter(const TableShape& shape = itemShape()) { return openWriterOn(&loop, shape); }
   std::unique_ptr<TableWriter> openWriterOn(Loop::EventLoop* l, const TableShape& shape = itemShape()) {
      return std::make_unique<TableWriter>(path, shape, std::vector{Record<Item>::codec()}, l, options);
   }
};

// In a child process: becomes uid/gid 65534 for good.
void becomeStranger() {
   if (::setresgid(kStranger, kStranger, kStranger) != 0 || ::setresuid(kStranger, kStranger, kStranger) != 0)
      ::_exit(90);
}

// Runs f in a child process as uid/gid 65534; its exit code.
template <class F>
int asStranger(F f) {
   const pid_t pid = ::fork();
   if (pid == 0) {
      becomeStranger();
      ::_exit(f());
   }
   return exitCode(pid);
}

// Forks a process of uid 65534 that runs setUp (false: it failed), says so,
// and stays until killed; returns its pid once it is ready (-1 if not).
template <class F>
pid_t strangerUntilKilled(F setUp) {
   int fds[2];
   if (::pipe(fds) != 0) return -1;
   const pid_t pid = ::fork();
   if (pid == 0) {
      becomeStranger();
      char c = setUp() ? 1 : 0;
      (void)!::write(fds[1], &c, 1);
      ::pause();
      ::_exit(0);
   }
   char c = 0;
   const bool ready = ::read(fds[0], &c, 1) == 1 && c == 1;
   ::close(fds[0]);
   ::close(fds[1]);
   return ready ? pid : -1;
}

// A whole, valid-looking header under `name`, created by whoever runs it.
int plantSegment(const std::string& name, const SegmentHeader& layout, mode_t mode) {
   const int fd = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, mode);
   if (fd < 0 || ::fchmod(fd, mode) != 0 || ::ftruncate(fd, off_t(layout.segmentSize)) != 0) return 91;
   if (::pwrite(fd, &layout, sizeof layout, 0) != ssize_t(sizeof layout)) return 92;
   return fd;
}

uint32_t slotOf(TableWriter& w, uint32_t key) {
   const auto* data = static_cast<const unsigned char*>(w.collection(0).find(&key));
   return uint32_t((data - sizeof(SlotHeader) - w.collection(0).map().slots) / w.collection(0).map().slotStride);
}

TEST_F(PondHostile, ANameSquattedByAnotherUserIsReplacedNeverRecovered) {
   ASSERT_EQ(::geteuid(), 0u) << "needs root, as CI has";
   const SegmentHeader layout = layoutFor(itemShape());
   // World-writable and of the right layout: trusting it would let its
   // owner scribble records readers believe. It also holds a lock on it.
   // Its lock file too, world-writable.
   const std::string lock = writerLockPath(wakeSocketPath(options.socketDir, name));
   {
      const KillOnExit squatter{strangerUntilKilled([&] {
         const int fd = plantSegment(name, layout, 0666);
         const int lockFd = ::open(lock.c_str(), O_RDWR | O_CREAT | O_EXCL, 0666);
         return fd >= 0 && lockFd >= 0 && ::fchmod(lockFd, 0666) == 0 && ::flock(fd, LOCK_EX) == 0 &&
                ::flock(lockFd, LOCK_EX) == 0;
      })};
      ASSERT_GT(squatter.pid, 0);
      const auto writer = openWriter();
      EXPECT_FALSE(writer->recovered());
      struct stat st{};
      const int fd = ::shm_open(name.c_str(), O_RDONLY, 0);
      ASSERT_EQ(::fstat(fd, &st), 0);
      ::close(fd);
      EXPECT_EQ(st.st_uid, 0u);
      EXPECT_EQ(st.st_mode & 0777, 0600u);
   }
   // A user who cannot remove what another left is refused, not let in.
   EXPECT_EQ(asStranger([&] {
                return Gant::Test::thrown<std::runtime_error>([&] { openWriterOn(nullptr); }).find("cannot be replaced") ==
                       std::string::npos;
             }),
             0);
}

TEST_F(PondHostile, AReaderTurnedAwayIsToldAndStillFollowsTheTable) {
   options.maxReaders = 1;
   TableWriter writer(path, itemShape(), {Record<Item>::codec()}, &loop, options);
   MapWriter<Item> items(writer.collection(0));
   struct Refused : Recorder {
      std::vector<std::string> refusals;
      void onRefused(const std::string& why) override { refusals.push_back(why); }
   } first, second;
   TableReader a(path, itemShape(), {Record<Item>::codec()}, loop, first, options);
   loop.runUntil([&] { return writer.readers() == 1; }, 5);
   TableReader b(path, itemShape(), {Record<Item>::codec()}, loop, second, options);
   loop.runUntil([&] { return !second.refusals.empty(); }, 5);
   ASSERT_EQ(second.refusals.size(), 1u) << "its text is PondWakeServer's to check";
   items.set(Item::make(9, 1));
   loop.runUntil([&] { return !second.changed.empty(); }, 3);
   EXPECT_EQ(second.changed, (std::vector<uint32_t>{9})) << "it polls while it is not woken";
   EXPECT_EQ(first.changed, (std::vector<uint32_t>{9}));
}

TEST_F(PondHostile, LocksOthersTakeOnTheSegmentCannotShutTheWriterOut) {
   auto writer = openWriter();
   MapWriter<Item>(writer->collection(0)).set(Item::make(1, 1));
   // A reader's read-only descriptor takes a shared lock; the writer restarts.
   const int reader = ::shm_open(name.c_str(), O_RDONLY, 0);
   ASSERT_EQ(::flock(reader, LOCK_SH | LOCK_NB), 0);
   writer.reset();
   writer = openWriter();
   EXPECT_TRUE(writer->recovered());
   EXPECT_TRUE(MapReader<Item>(writer->view(0)).find(1));
   ::close(reader);
   // Still one live writer at a time.
   EXPECT_THAT(Gant::Test::thrown<std::runtime_error>([&] { openWriterOn(nullptr); }),
               ::testing::HasSubstr("already has a live writer"));
}

TEST_F(PondHostile, ReadersRefuseASegmentOfAStrangerWritableByOthersOfAnotherLayoutOrTruncated) {
   struct Case {
      bool stranger;
      mode_t mode;
      uint32_t capacity;
      bool truncated;
      const char* refusal;
   } cases[] = {{true, 0644, 64, false, "is owned by uid 65534, not a trusted writer"},
                {false, 0666, 64, false, "is writable by others (mode 0666)"},
                {false, 0600, 128, false, "does not match: "},
                {false, 0600, 64, true, "does not match: segment truncated"}};
   for (const Case& c : cases) {
      SCOPED_TRACE(c.refusal);
      const SegmentHeader layout = layoutFor(itemShape(c.capacity));
      const auto plant = [&] {
         const int fd = plantSegment(name, layout, c.mode);
         return fd >= 0 && (!c.truncated || ::ftruncate(fd, off_t(layout.segmentSize / 2)) == 0) ? 0 : 1;
      };
      ASSERT_EQ(c.stranger ? asStranger(plant) : plant(), 0);
      Recorder rec;
      TableReader reader(path, itemShape(), {Record<Item>::codec()}, loop, rec, options);
      settle();
      EXPECT_FALSE(reader.mounted());
      ASSERT_EQ(rec.corrupt.size(), 1u) << "reported once, not at every retry";
      EXPECT_THAT(rec.corrupt[0], ::testing::StartsWith("segment " + name + " " + c.refusal));
      Segment::unlink(name);
   }
}

TEST_F(PondHostile, ReadersDoNotTrustAWakeSocketServedByAnotherUser) {
   // The rightful writer runs without a wake socket; a stranger serves one
   // at its path and would never wake anybody.
   TableWriter writer(path, itemShape(), {Record<Item>::codec()}, nullptr, options);
   MapWriter<Item>(writer.collection(0)).set(Item::make(1, 1));
   const std::string wake = wakeSocketPath(options.socketDir, name);
   Recorder rec;
   {
      const KillOnExit impostor{strangerUntilKilled([&] { return unixSocket(wake, true) >= 0; })};
      ASSERT_GT(impostor.pid, 0);
      TableReader reader(path, itemShape(), {Record<Item>::codec()}, loop, rec, options);
      settle();
   }
   ::unlink(wake.c_str());
   ASSERT_EQ(rec.corrupt.size(), 1u);
   EXPECT_EQ(rec.corrupt[0], "the wake socket of segment " + name + " is served by uid 65534, not by the segment's owner uid 0");
   EXPECT_EQ(rec.changed, (std::vector<uint32_t>{1})) << "the table itself is still read";
}

TEST_F(PondHostile, ASlowWriterIsWaitedForAndOnlyADeadOnesSlotIsStuck) {
   int ready[2], go[2];
   ASSERT_EQ(::pipe(ready), 0);
   ASSERT_EQ(::pipe(go), 0);
   char c = 1;
   const pid_t child = ::fork();
   if (child == 0) {
      Loop::EpollLoop childLoop;
      auto writer = openWriterOn(&childLoop);
      MapWriter<Item>(writer->collection(0)).set(Item::make(7, 1));
      const CollectionMap& m = writer->collection(0).map();
      SlotHeader* slot = m.slot(slotOf(*writer, 7));
      QueueEntryHeader* next = m.entry(m.header->queueHead);
      const uint32_t seq = slot->seq, lock = next->lock;
      (void)!::write(ready[1], &c, 1);
      for (int round = 0; round < 2; ++round) {
         (void)!::read(go[0], &c, 1);
         // Mid-write, as a writer descheduled in the middle of a rewrite:
         // its change begun, the slot odd.
         storeRelease(next->lock, lock | 1);
         storeRelease(slot->seq, seq | kSeqWriting);
         (void)!::write(ready[1], &c, 1);
         if (round == 0) {
            ::raise(SIGSTOP); // stopped in the middle, until continued
            storeRelease(slot->seq, seq);
            storeRelease(next->lock, lock);
         }
      }
      ::pause();
      ::_exit(0);
   }
   const KillOnExit reap{child};
   ASSERT_EQ(::read(ready[0], &c, 1), 1);
   Recorder rec;
   TableReader reader(path, itemShape(), {Record<Item>::codec()}, loop, rec, options);
   loop.runUntil([&] { return reader.ready(); }, 5);
   MapReader<Item> items(reader.collection(0));
   ASSERT_TRUE(items.find(7));

   ASSERT_EQ(::write(go[1], &c, 1), 1);
   ASSERT_EQ(::read(ready[0], &c, 1), 1);
   int status = 0;
   ASSERT_EQ(::waitpid(child, &status, WUNTRACED), child); // stopped in the middle of its change
   ASSERT_TRUE(WIFSTOPPED(status));
   std::thread continuer([&] {
      ::usleep(300 * 1000);
      ::kill(child, SIGCONT);
   });
   const ReadStatus whileStopped = items.find(7).status;
   continuer.join();
   EXPECT_EQ(whileStopped, ReadStatus::found) << "the writer is alive: it is waited for";

   ASSERT_EQ(::write(go[1], &c, 1), 1);
   ASSERT_EQ(::read(ready[0], &c, 1), 1);
   ::kill(child, SIGKILL);
   ::waitpid(child, nullptr, 0);
   EXPECT_EQ(items.find(7).status, ReadStatus::stuck) << "its writer is dead";
}

// A segment the restarted writer cannot use is recreated, not refused for ever.
TEST_F(PondHostile, AnIndexNoWriterLeftOrASegmentTruncatedToNothingIsRecreated) {
   for (const bool truncate : {false, true}) {
      SCOPED_TRACE(truncate ? "truncated to nothing under its writer" : "an index with no empty bucket");
      auto writer = openWriter();
      MapWriter<Item> items(writer->collection(0));
      items.set(Item::make(1, 1));
      const CollectionMap& m = writer->collection(0).map();
      if (!truncate) std::memset(m.tags, 0x5a, m.bucketMask + 1);
      if (truncate) {
         const int fd = ::shm_open(name.c_str(), O_RDWR, 0);
         ASSERT_EQ(::ftruncate(fd, 0), 0);
         ::close(fd);
         for (uint32_t k = 2; k < 40; ++k) items.set(Item::make(k, 1)); // no SIGBUS
         settle();
         EXPECT_TRUE(writer->truncated());
      }
      writer.reset();
      writer = openWriter();
      EXPECT_FALSE(writer->recovered());
      EXPECT_EQ(MapWriter<Item>(writer->collection(0)).size(), 0u);
      MapWriter<Item>(writer->collection(0)).set(Item::make(2, 1));
      EXPECT_TRUE(MapReader<Item>(writer->view(0)).find(2));
   }
}

TEST_F(PondHostile, DamageBehindTheWritersBackIsReportedNotDelivered) {
   auto writer = openWriter(itemShape(64, 8));
   MapWriter<Item> items(writer->collection(0));
   for (uint32_t k = 0; k < 10; ++k) items.set(Item::make(k, 1));
   Recorder rec;
   TableReader reader(path, itemShape(64, 8), {Record<Item>::codec()}, loop, rec, options);
   loop.runUntil([&] { return reader.ready(); }, 5);
   settle();
   // Random bytes in a record whose seq stays intact: as valid an Item as any.
   const CollectionMap& m = writer->collection(0).map();
   unsigned char* record = m.slotData(slotOf(*writer, 4));
   for (std::size_t i = 4; i < sizeof(Item); ++i) record[i] = static_cast<unsigned char>(i * 37 + 11);
   EXPECT_EQ(MapReader<Item>(reader.collection(0)).find(4).status, ReadStatus::corrupt);
   EXPECT_TRUE(MapReader<Item>(reader.collection(0)).find(5));
   // A seq set odd while the writer is alive but has no change under way.
   SlotHeader* odd = m.slot(slotOf(*writer, 8));
   odd->seq ^= kSeqWriting;
   EXPECT_EQ(MapReader<Item>(reader.collection(0)).find(8).status, ReadStatus::corrupt) << "damage, not a wait";
   odd->seq ^= kSeqWriting;
   // One bad word in the change queue, in an entry the reader has yet to read.
   rec.changed.clear();
   const uint64_t resyncs = reader.resyncs();
   items.set(Item::make(5, 2));
   m.entry(m.header->queueHead - 1)->slot = 0x7fff;
   items.set(Item::make(6, 2));
   settle();
   EXPECT_EQ(reader.resyncs(), resyncs + 1) << "a damaged entry costs a pass";
   EXPECT_TRUE(rec.corrupt.empty());
   EXPECT_THAT(rec.changed, ::testing::Contains(6u));
   rec.changed.clear();
   items.set(Item::make(7, 2));
   settle();
   EXPECT_EQ(rec.changed, (std::vector<uint32_t>{7})) << "the reader trusts a healthy writer again";
   // The next writer drops the damaged record.
   writer.reset();
   writer = openWriter(itemShape(64, 8));
   EXPECT_TRUE(writer->recovered());
   EXPECT_EQ(MapWriter<Item>(writer->collection(0)).size(), 9u);
}

} // namespace
