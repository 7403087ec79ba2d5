// The allocator on a real shared table in one process: the pool, the
// waiting list, reference counts, the range, recovery and its assertions.
#include "bitmapper/BitMapperSm.h"
#include "flashlog/Capture.h"
#include "pond/Segment.h"
#include "pond/testlib/Fixture.h"

#include <gtest/gtest.h>

namespace {

using namespace BitMapper;

BitMapperKey key(uint32_t n) {
   return BitMapperKey(Pakto::IntfId("Ethernet" + std::to_string(n)), Pakto::IpGenAddr(Pakto::IpAddr::fromHost(0x0a000000 + n)));
}

struct Allocator : Pond::Test::TableTest {
   Gant::Ptr<Config> config;
   Gant::Ptr<Status> status = statusFactory(Gant::Name("status"));
   Gant::Ptr<PondStatus> pond;
   Gant::Ptr<BitMapperSm> sm;

   void start(uint32_t size, bool refCount, uint32_t minIndex = 0) {
      config = configFactory(size, refCount);
      config->bitMapMinIndexIs(minIndex);
      restart();
   }
   // A new allocator over the same table, as after the process restarted.
   void restart() {
      sm = nullptr;
      pond = nullptr;
      status = statusFactory(Gant::Name("status"));
      pond = pondStatusFactory(Gant::Name("bitmap"));
      pond->openAllocatorTable(path, nullptr, options);
      sm = bitMapperSmFactory(config, status, pond);
   }
   BitIndex alloc(uint32_t n) {
      config->allocRequestKeyIs(key(n));
      config->allocRequestCountInc();
      return status->bitIndex(key(n));
   }
   void release(uint32_t n) {
      config->deallocRequestKeyIs(key(n));
      config->deallocRequestCountInc();
   }
   std::vector<uint16_t> pool() const {
      std::vector<uint16_t> out;
      for (uint32_t i = 0; i < sm->bitIndexFreePools(); ++i) out.push_back(sm->bitIndexFreePool(i).value());
      return out;
   }
   uint32_t waiting(uint32_t n) const {
      auto row = pond->waitlistMap(key(n));
      return row ? row->refCount() : 0;
   }
};

// Scripts of requests. After each step, the key's index in Status: an
// index, `waits` (0xFFFE) or `none`; 'h' and 'n' check the holders and the
// new-mapping flag of the key's row.
constexpr int none = -1, waits = -2;
struct Step {
   char op; // 'a' allocate, 'r' release, '?' look, 'h' holders, 'n' new mapping
   uint32_t key;
   int expect;
};
struct Script {
   const char* what;
   uint32_t size, minIndex;
   bool refCount;
   std::vector<Step> steps;
   std::vector<uint16_t> pool; // at the end, head first
};

TEST_F(Allocator, Scripts) {
   const Script scripts[] = {
       {"a freed index goes to the waiting key, with every request that waited", 2, 10, true,
        {{'a', 1, 10}, {'a', 2, 11}, {'a', 3, waits}, {'a', 3, waits}, {'r', 1, none}, {'?', 3, 10}, {'h', 3, 2},
         {'n', 3, 1}},
        {}},
       {"freed indexes are reused as late as possible", 4, 0, false,
        {{'a', 0, 0}, {'a', 1, 1}, {'a', 2, 2}, {'r', 1, none}, {'r', 0, none}, {'a', 7, 3}, {'a', 8, 1}},
        {0}},
       {"with reference counts, the last release frees", 4, 0, true,
        {{'a', 1, 0}, {'a', 1, 0}, {'h', 1, 2}, {'n', 1, 0}, {'r', 1, 0}, {'h', 1, 1}, {'r', 1, none}},
        {1, 2, 3, 0}},
       {"without, the first release frees", 4, 0, false, {{'a', 1, 0}, {'a', 1, 0}, {'r', 1, none}}, {1, 2, 3, 0}},
       {"the oldest waiting key is served first; a key waiting once leaves the list", 1, 0, true,
        {{'a', 1, 0}, {'a', 2, waits}, {'a', 3, waits}, {'a', 4, waits}, {'r', 3, none}, {'r', 1, none},
         {'?', 2, 0}, {'?', 4, waits}, {'r', 2, none}, {'?', 4, 0}},
        {}},
   };
   for (const Script& script : scripts) {
      SCOPED_TRACE(script.what);
      start(script.size, script.refCount, script.minIndex);
      for (const Step& step : script.steps) {
         SCOPED_TRACE(std::string(1, step.op) + std::to_string(step.key));
         const BitIndexMap row = pond->lookupBitIndex(status->bitIndex(key(step.key)));
         switch (step.op) {
         case 'a': alloc(step.key); break;
         case 'r': release(step.key); break;
         case 'h': EXPECT_EQ(row.refCount(), uint32_t(step.expect)); continue;
         case 'n': EXPECT_EQ(row.isNewMapping(), step.expect == 1); continue;
         }
         const BitIndex now = status->bitIndex(key(step.key));
         const int got = now.isNull() ? none : !now.isValid() ? waits : now.value();
         EXPECT_EQ(got, step.expect);
         EXPECT_EQ(got == waits, waiting(step.key) > 0) << "a waiting key has its row";
         EXPECT_EQ(got >= 0, pond->lookupBitIndex(now).bitMapperKey() == key(step.key)) << "a held index names it";
      }
      EXPECT_EQ(pool(), script.pool);
      EXPECT_EQ(pond->waitlistMapSize(), sm->waitingKeys().size());
      sm = nullptr;
      pond = nullptr;
      Pond::Segment::unlink(name);
   }
}

// What a stop between two writes leaves, or a damaged table holds.
TEST_F(Allocator, ARestartPutsRightWhatAStopInTheMiddleLeft) {
   start(4, true);
   // Served just before the stop: the index row counts the requests, the
   // waiting row is still there.
   pond->bitIndexMapIs(BitIndexMap(1, key(5), 2, true));
   pond->waitlistMapIs(WaitlistMap(key(5), 2));
   pond->bitIndexMapIs(BitIndexMap(3, key(5), 1, true)); // a second index for one key
   pond->bitIndexMapIs(BitIndexMap(2, BitMapperKey(), 1, true)); // no holder
   pond->waitlistMapIs(WaitlistMap(key(6), 1));           // waiting while an index is free
   restart();
   EXPECT_EQ(status->bitIndex(key(5)), 1);
   EXPECT_EQ(waiting(5), 0u);
   EXPECT_EQ(pond->lookupBitIndex(3), BitIndexMap());
   EXPECT_EQ(pond->lookupBitIndex(2), BitIndexMap());
   EXPECT_EQ(status->bitIndex(key(6)), 0) << "served at start";
   EXPECT_EQ(pool(), (std::vector<uint16_t>{2, 3}));
   alloc(7), alloc(8), alloc(9);
   restart();
   EXPECT_EQ(status->bitIndex(key(9)), BitIndex::invalid()) << "a waiting key is known after a restart";
   release(9);
   EXPECT_EQ(pond->waitlistMapSize(), 0u);
}

TEST_F(Allocator, TheRangeMovesWhileEveryIndexIsFree) {
   Flashlog::Capture capture("Mroute::BitMapper=8");
   start(3, false);
   alloc(1);
   release(1);
   EXPECT_EQ(capture.lines(), (std::vector<std::string>{"handleInitialized(): Initializing bitmap",
                                                        "handleAllocRequestCountAllocate index 0"}));
   capture.clear();
   config->bitMapMinIndexIs(100);
   EXPECT_EQ(capture.lines(), std::vector<std::string>{"handleBitMapMinIndex(): FreePool size: 3"});
   EXPECT_EQ(pool(), (std::vector<uint16_t>{100, 101, 102}));
   EXPECT_EQ(alloc(2), 100);
   EXPECT_EQ(sm->maxBitIndex(), 103u);
}

TEST_F(Allocator, ATableOfAnotherLayoutIsRefusedNotReplaced) {
   Pond::TableShape other = PondStatus::tableShape();
   other.collections[0].capacity = 512;
   {
      Pond::TableWriter previous(path, other, PondStatus::tableCodecs(), nullptr, options);
   }
   auto table = pondStatusFactory(Gant::Name("bitmap"));
   EXPECT_THROW(
       try { table->openAllocatorTable(path, nullptr, options); } catch (const Gant::TableError& e) {
          EXPECT_EQ(std::string(e.what()), "shared segment " + name + " holds another layout (of " +
                                               std::to_string(Pond::layoutFor(other).segmentSize) + " bytes, expected " +
                                               std::to_string(Pond::layoutFor(PondStatus::tableShape()).segmentSize) +
                                               "); it is kept, not replaced");
          throw;
       },
       Gant::TableError);
   auto reader = pondStatusFactory(Gant::Name("bitmap"));
   reader->openReader(path, loop, options);
   settle();
   EXPECT_FALSE(reader->tableReady());
   EXPECT_NE(reader->corruption().find("does not match: segment size differs"), std::string::npos) << reader->corruption();
}

using AllocatorDeathTest = Allocator;

TEST_F(AllocatorDeathTest, InconsistentRequestsStopOnTheirAssertions) {
   ::testing::FLAGS_gtest_death_test_style = "threadsafe";
   EXPECT_DEATH(start(0, true), "Assertion failed: config\\(\\)->bitMapSize\\(\\)");
   start(1, true);
   EXPECT_DEATH({
      config->allocRequestKeyIs(BitMapperKey());
      config->allocRequestCountInc();
   }, "Assertion failed: bitMapperKey != BitMapperKey\\(\\)");
   EXPECT_DEATH(release(9), "Assertion failed: bitIndex != BitIndex::null\\(\\)");
   EXPECT_DEATH({
      config->deallocRequestKeyIs(BitMapperKey());
      config->deallocRequestCountInc();
   }, "Assertion failed: key != BitMapperKey\\(\\)");
   alloc(1);
   EXPECT_DEATH(config->bitMapMinIndexIs(5), "Assertion failed: bitIndexFreePools\\(\\) == config\\(\\)->bitMapSize\\(\\)");
}

} // namespace
