// Indexes survive the allocator's death: an allocator process, killed with
// SIGKILL at a random point of a burst of requests, round after round; after
// each kill a new allocator recovers from the table, and a reader process
// follows the table throughout. MCASTFIB_STRESS_SECONDS=N keeps killing for
// N seconds instead of 50 rounds.
#include "bitmapper/BitMapperSm.h"
#include "pond/testlib/Fixture.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <random>
#include <set>

namespace {

using namespace BitMapper;
using Pond::Test::exitCode;

constexpr uint32_t kRange = 256, kMin = 16, kKeys = 400;

BitMapperKey key(uint32_t n) {
   return BitMapperKey(Pakto::IntfId("Ethernet" + std::to_string(n + 1)),
                       Pakto::IpGenAddr(Pakto::IpAddr::fromHost(0x0a000000 + n)));
}

// An allocator over the table: what one process of it holds.
struct Allocator {
   Gant::Ptr<Config> config = configFactory(kRange, true);
   Gant::Ptr<Status> status = statusFactory(Gant::Name("status"));
   Gant::Ptr<PondStatus> pond = pondStatusFactory(Gant::Name("bitmap"));
   Gant::Ptr<BitMapperSm> sm;
   Allocator(const std::string& path, Loop::EventLoop* loop, const Pond::Options& options) {
      config->bitMapMinIndexIs(kMin);
      pond->openAllocatorTable(path, loop, options);
      sm = bitMapperSmFactory(config, status, pond);
   }
   // Requests each key has outstanding, from the table: a key's holders, or
   // the requests it waits with.
   std::map<uint32_t, uint32_t> outstanding() const {
      std::map<uint32_t, uint32_t> out;
      for (uint32_t n = 0; n < kKeys; ++n) {
         const BitIndex i = status->bitIndex(key(n));
         if (i.isNull()) continue;
         if (i.isValid()) out[n] = pond->lookupBitIndex(i).refCount();
         else out[n] = pond->waitlistMap(key(n))->refCount();
      }
      return out;
   }
};

// Requests at full speed until killed: allocations, and releases of what is
// outstanding, so that no request is one the allocator refuses.
[[noreturn]] void allocatorProcess(const std::string& path, const Pond::Options& options, unsigned seed, int started) {
   Loop::EpollLoop loop;
   Allocator a(path, &loop, options);
   std::map<uint32_t, uint32_t> out = a.outstanding();
   std::mt19937 rng(seed);
   (void)!::write(started, "s", 1);
   for (uint64_t i = 0;; ++i) {
      const uint32_t n = rng() % kKeys;
      if (out.count(n) && rng() % 2) {
         a.config->deallocRequestKeyIs(key(n));
         a.config->deallocRequestCountInc();
         if (--out[n] == 0) out.erase(n);
      } else {
         a.config->allocRequestKeyIs(key(n));
         a.config->allocRequestCountInc();
         ++out[n];
      }
      if (i % 64 == 0) loop.runOnce(0);
   }
}

// Follows the table, building its view of index -> key from the changes it
// hears. Asked ('c') while no allocator runs, it answers whether that view
// is the table's ('0'), differs from it ('1') or has a key at two indexes
// ('2'); told to stop ('x'), it exits 0, or 2 when it heard no change.
[[noreturn]] void readerProcess(const std::string& path, const Pond::Options& options, int ask, int answer) {
   struct Follow : PondStatus::Reactor {
      using PondStatus::Reactor::Reactor;
      std::map<uint16_t, BitMapperKey> byIndex;
      uint64_t changes = 0;
      void onBitIndexMap(const BitIndex& i) override {
         ++changes;
         const BitIndexMap row = notifier()->lookupBitIndex(i);
         if (!row) byIndex.erase(i.value());
         else byIndex[i.value()] = row.bitMapperKey();
      }
   };
   Loop::EpollLoop loop;
   auto table = pondStatusFactory(Gant::Name("bitmap"));
   table->openReader(path, loop, options);
   Follow follow(table.ptr());
   bool done = false;
   Loop::Watch w = loop.watchReadable(ask, [&] {
      char c = 'x';
      (void)!::read(ask, &c, 1);
      if (c != 'c') {
         done = true;
         return;
      }
      table->tableReader()->poll();
      std::map<uint16_t, BitMapperKey> rows;
      table->bitIndexMapForEach([&](const BitIndexMap& r) { rows[r.key().value()] = r.bitMapperKey(); });
      std::set<BitMapperKey> keys;
      bool twice = false;
      for (const auto& [index, k] : follow.byIndex) twice |= !keys.insert(k).second;
      const char verdict = twice ? '2' : rows != follow.byIndex ? '1' : '0';
      (void)!::write(answer, &verdict, 1);
   });
   loop.runUntil([&] { return done; }, 600);
   ::_exit(follow.changes == 0 ? 2 : 0);
}

// After recovery: the rows of before, the pool the rest of the range in
// increasing order, Status and the table in agreement, one index per key.
void checkRecovered(const Allocator& a, const std::map<uint16_t, BitMapperKey>& before) {
   std::map<uint16_t, BitMapperKey> rows;
   a.pond->bitIndexMapForEach([&](const BitIndexMap& r) { rows[r.key().value()] = r.bitMapperKey(); });
   for (const auto& [index, k] : before) {
      ASSERT_TRUE(rows.count(index)) << "index " << index << " lost";
      EXPECT_EQ(rows[index], k) << "index " << index << " moved to another key";
   }
   std::set<BitMapperKey> holders;
   for (const auto& [index, k] : rows) {
      EXPECT_TRUE(holders.insert(k).second) << "a key holds two indexes";
      EXPECT_EQ(a.status->bitIndex(k), index) << "Status and the table disagree";
   }
   std::vector<uint16_t> pool;
   for (uint32_t i = 0; i < a.sm->bitIndexFreePools(); ++i) pool.push_back(a.sm->bitIndexFreePool(i).value());
   EXPECT_TRUE(std::is_sorted(pool.begin(), pool.end()));
   std::set<uint16_t> all(pool.begin(), pool.end());
   for (const auto& [index, k] : rows) EXPECT_TRUE(all.insert(index).second) << "index " << index << " free and held";
   EXPECT_EQ(all.size(), kRange);
   EXPECT_EQ(*all.begin(), kMin);
   EXPECT_EQ(*all.rbegin(), kMin + kRange - 1);
   uint32_t waiting = 0;
   for (const auto& [n, count] : a.outstanding()) {
      const BitIndex i = a.status->bitIndex(key(n));
      waiting += !i.isValid();
      EXPECT_GT(count, 0u);
   }
   EXPECT_EQ(waiting, a.pond->waitlistMapSize());
   EXPECT_TRUE(waiting == 0 || pool.empty()) << "keys wait while indexes are free";
}

TEST(AllocatorRestart, KilledAtRandomPointsItsIndexesStayWithTheirKeys) {
   const Pond::Options options = Pond::Test::uniqueOptions();
   const std::string path = "bitmapper/restart";
   const char* stress = std::getenv("MCASTFIB_STRESS_SECONDS");
   const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(stress ? std::atof(stress) : 0);
   int ask[2], answer[2];
   ASSERT_EQ(::pipe(ask), 0);
   ASSERT_EQ(::pipe(answer), 0);
   { Allocator created(path, nullptr, options); } // so that the reader mounts it at once
   const pid_t reader = ::fork();
   if (reader == 0) readerProcess(path, options, ask[0], answer[1]);
   std::mt19937 rng(20261124);
   uint32_t rounds = 0, waitedAtKill = 0;
   while (rounds < 50 || std::chrono::steady_clock::now() < until) {
      ++rounds;
      int started[2];
      ASSERT_EQ(::pipe(started), 0);
      const pid_t pid = ::fork();
      if (pid == 0) allocatorProcess(path, options, rng(), started[1]);
      char c;
      ASSERT_EQ(::read(started[0], &c, 1), 1);
      ::close(started[0]);
      ::close(started[1]);
      ::usleep(rng() % 20000);
      ::kill(pid, SIGKILL);
      ASSERT_EQ(exitCode(pid), 100 + SIGKILL);

      std::map<uint16_t, BitMapperKey> before;
      {
         Loop::EpollLoop loop;
         auto seen = pondStatusFactory(Gant::Name("bitmap"));
         seen->openReader(path, loop, options);
         loop.runUntil([&] { return seen->tableReady(); }, 5);
         seen->bitIndexMapForEach([&](const BitIndexMap& r) { before[r.key().value()] = r.bitMapperKey(); });
         waitedAtKill += seen->waitlistMapSize() > 0;
      }
      SCOPED_TRACE("round " + std::to_string(rounds));
      Allocator recovered(path, nullptr, options);
      checkRecovered(recovered, before);
      // The dead allocator's last change is closed now: the reader's view is the table's.
      char verdict = 0;
      ASSERT_EQ(::write(ask[1], "c", 1), 1);
      ASSERT_EQ(::read(answer[0], &verdict, 1), 1);
      EXPECT_EQ(verdict, '0') << "the reader's view: 1 differs from the table, 2 has a key at two indexes";
      if (HasFailure()) break;
   }
   if (stress) std::printf("%u rounds, %u killed while keys waited\n", rounds, waitedAtKill);
   EXPECT_GT(waitedAtKill, 0u) << "some kills came while keys waited";
   ASSERT_EQ(::write(ask[1], "x", 1), 1);
   EXPECT_EQ(exitCode(reader), 0) << "2: no change seen";
   Pond::Segment::unlink(Pond::segmentName(options.prefix, path));
}

} // namespace
