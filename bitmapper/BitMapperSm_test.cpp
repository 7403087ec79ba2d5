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

TEST(BitIndex, NullAndInvalidAreDifferentTests) {
   EXPECT_TRUE(BitIndex::null().isNull());
   EXPECT_TRUE(BitIndex::null().isValid());
   EXPECT_FALSE(BitIndex::invalid().isValid());
   EXPECT_FALSE(BitIndex::invalid().isNull());
   EXPECT_EQ(BitIndex().value(), 0xFFFF);
   EXPECT_TRUE(BitIndex(7).isValid() && !BitIndex(7).isNull());
}

TEST_F(Allocator, ARangeOfTwoHandsAFreedIndexToTheWaitingKey) {
   Flashlog::Capture capture("Mroute::BitMapper=8");
   start(2, true, 10);
   EXPECT_EQ(alloc(1), 10);
   EXPECT_EQ(alloc(2), 11);
   EXPECT_EQ(alloc(3), BitIndex::invalid());
   EXPECT_EQ(waiting(3), 1u);
   EXPECT_EQ(alloc(3), BitIndex::invalid());
   EXPECT_EQ(waiting(3), 2u) << "each request waits";
   EXPECT_EQ(status->waitlistChangeCount(), 2u);
   EXPECT_EQ(pond->lookupBitIndex(10), BitIndexMap(10, key(1), 1, true));

   release(1);
   EXPECT_EQ(status->bitIndex(key(3)), 10) << "the freed index goes to the waiting key";
   EXPECT_EQ(pond->lookupBitIndex(10), BitIndexMap(10, key(3), 2, true)) << "both waiting requests hold it";
   EXPECT_FALSE(status->bitIndexHas(key(1)));
   EXPECT_EQ(waiting(3), 0u);
   EXPECT_EQ(pond->waitlistMapSize(), 0u);
   EXPECT_EQ(status->waitlistChangeCount(), 3u);
   EXPECT_TRUE(pool().empty());
   EXPECT_EQ(capture.lines()[0], "handleInitialized(): Initializing bitmap");
   EXPECT_EQ(capture.lines()[1], "handleAllocRequestCountAllocate index 10");
}

TEST_F(Allocator, FreedIndexesAreReusedAsLateAsPossible) {
   start(4, false);
   for (uint32_t n : {0, 1, 2}) EXPECT_EQ(alloc(n), n);
   release(1);
   release(0);
   EXPECT_EQ(pool(), (std::vector<uint16_t>{3, 1, 0}));
   EXPECT_EQ(alloc(7), 3);
   EXPECT_EQ(alloc(8), 1);
   EXPECT_EQ(alloc(9), 0);
   EXPECT_FALSE(pond->isNewMapping(5)) << "no row";
   EXPECT_EQ(pond->lookupBitIndex(3), BitIndexMap(3, key(7), 1, true));
   EXPECT_EQ(pond->lookupBitIndex(99), BitIndexMap()) << "an index without a row reads as the default row";
}

TEST_F(Allocator, ReferenceCountsDecideWhichReleaseFreesTheIndex) {
   for (bool refCount : {true, false}) {
      SCOPED_TRACE(refCount);
      start(4, refCount);
      EXPECT_EQ(alloc(1), 0);
      EXPECT_EQ(alloc(1), 0) << "a key holds one index";
      EXPECT_EQ(pond->lookupBitIndex(0), BitIndexMap(0, key(1), 2, false)) << "a repeated request is not new";
      release(1);
      EXPECT_EQ(status->bitIndexHas(key(1)), refCount);
      if (refCount) {
         EXPECT_EQ(pond->lookupBitIndex(0).refCount(), 1u);
         release(1);
      }
      EXPECT_FALSE(status->bitIndexHas(key(1)));
      EXPECT_EQ(pond->bitIndexMapSize(), 0u);
      EXPECT_EQ(pool(), (std::vector<uint16_t>{1, 2, 3, 0}));
      sm = nullptr;
      pond = nullptr;
      Pond::Segment::unlink(name);
   }
}

TEST_F(Allocator, TheOldestWaitingKeyIsServedFirst) {
   start(1, true);
   alloc(1);
   for (uint32_t n : {2, 3, 4}) EXPECT_EQ(alloc(n), BitIndex::invalid());
   release(3);
   EXPECT_FALSE(status->bitIndexHas(key(3))) << "a key waiting once leaves the list";
   EXPECT_EQ(waiting(3), 0u);
   EXPECT_TRUE(pool().empty()) << "the pool is untouched";
   release(1);
   EXPECT_EQ(status->bitIndex(key(2)), 0);
   EXPECT_EQ(status->bitIndex(key(4)), BitIndex::invalid());
   EXPECT_EQ(sm->waitingKeys(), std::vector<BitMapperKey>{key(4)});
   release(2);
   EXPECT_EQ(status->bitIndex(key(4)), 0);
   EXPECT_TRUE(sm->waitingKeys().empty());
}

TEST_F(Allocator, ARestartRebuildsThePoolAndStatusFromTheTable) {
   start(6, true, 10);
   for (uint32_t n : {1, 2, 3}) alloc(n);
   release(2);
   restart();
   EXPECT_EQ(status->bitIndex(key(1)), 10);
   EXPECT_EQ(status->bitIndex(key(3)), 12);
   EXPECT_FALSE(status->bitIndexHas(key(2)));
   EXPECT_EQ(pool(), (std::vector<uint16_t>{11, 13, 14, 15})) << "the rest of the range, in order";
   EXPECT_TRUE(sm->initialized());
   alloc(4);
   alloc(5);
   alloc(6);
   alloc(7);
   EXPECT_EQ(alloc(8), BitIndex::invalid());
   restart();
   EXPECT_EQ(status->bitIndex(key(8)), BitIndex::invalid()) << "a waiting key is known after a restart";
   release(8);
   EXPECT_EQ(pond->waitlistMapSize(), 0u);
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
}

TEST_F(Allocator, TheRangeMovesWhileEveryIndexIsFree) {
   Flashlog::Capture capture("Mroute::BitMapper=9");
   start(3, false);
   alloc(1);
   release(1);
   capture.clear();
   config->bitMapMinIndexIs(100);
   EXPECT_EQ(capture.lines(), (std::vector<std::string>{"handleBitMapMinIndex()", "handleBitMapMinIndex(): FreePool size: 3"}));
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
