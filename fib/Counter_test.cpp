// The counter table: its traces, its whole-collection notification, and a
// commit that finds the table corrupt (the table hears of it, the key is
// still notified and the caller gets the error).
#include "fib/Counter.h"
#include "flashlog/Capture.h"
#include "loop/EpollLoop.h"
#include "pond/testlib/Fixture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

namespace {

using namespace Routing::Multicast::Fib;

IpGenRouteKey sg() {
   return makeRouteKeyMroute(Gant::fromText<Pakto::Prefix>("10.0.0.1/32"),
                             Gant::fromText<Pakto::Prefix>("239.1.1.1/32"));
}
IpGenRouteKey vlan(uint16_t v) { return makeRouteKeyVlanFloodset(v); }

// A counter table with a writer of its own, removed at the end.
struct FibCounterStatus : ::testing::Test {
   Loop::EpollLoop loop;
   Gant::Ptr<CounterStatus> status = counterStatusFactory("counters");
   void SetUp() override {
      status->openWriter("routing/multicast/counter/test", &loop, Pond::Test::uniqueOptions());
   }
   void TearDown() override { status->tableWriter()->unlink(); }
};

// Records what a reactor of the table hears.
struct Watch : CounterStatus::Reactor {
   using CounterStatus::Reactor::Reactor;
   std::vector<IpGenRouteKey> keys;
   int whole = 0, tableStatus = 0;
   void onCounter(const IpGenRouteKey& k) override { keys.push_back(k); }
   void onCounter() override { ++whole; }
   void onTableStatus() override { ++tableStatus; }
};

TEST(FibCounter, PondStringPutsTheGroupFirst) {
   Counter a(sg());
   a.valueIs(5);
   EXPECT_EQ(a.pondString(), "[239.1.1.1/32,10.0.0.1/32] 5");
}

TEST_F(FibCounterStatus, TracesUnderItsOperationNames) {
   Flashlog::Capture capture("counterIs=8,counterDel=8,counterNotify=8");
   Counter c(sg());
   c.valueIs(9);
   status->counterIs(c);
   status->counterNotify(sg());
   status->counterDel(sg());
   EXPECT_EQ(capture.lines(), (std::vector<std::string>{"(10.0.0.1,239.1.1.1)", "(10.0.0.1,239.1.1.1)",
                                                        "(10.0.0.1,239.1.1.1)"}));
}

TEST_F(FibCounterStatus, HearsWholeCollectionChanges) {
   Watch w(status.ptr());
   status->counterIs(Counter(vlan(3)));
   status->counterIs(Counter(vlan(4)));
   status->counterNotify();
   EXPECT_EQ(w.whole, 1);
   status->counterDelAll();
   EXPECT_EQ(status->counterSize(), 0u);
   EXPECT_EQ(w.keys.size(), 4u) << "two insertions, then each removal";
   EXPECT_EQ(w.whole, 2) << "emptying is a change of the whole collection";
}

TEST_F(FibCounterStatus, CommitOnACorruptTableNotifiesTheKeyAndRaises) {
   status->counterIs(Counter(vlan(1)));
   Watch watch(status.ptr());

   // Another process fills every bucket of the index: no writer leaves it so.
   Pond::TableWriter& writer = *status->tableWriter();
   const int fd = ::shm_open(writer.segmentName().c_str(), O_RDWR, 0);
   ASSERT_GE(fd, 0);
   void* base = ::mmap(nullptr, writer.segmentSize(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   ::close(fd);
   ASSERT_NE(base, MAP_FAILED);
   const Pond::CollectionHeader& c = static_cast<Pond::SegmentHeader*>(base)->collections[0];
   std::memset(static_cast<unsigned char*>(base) + c.indexOffset, 0x5a, Pond::indexTagBytes(c.bucketCount));

   Counter& counter = status->counterModify(vlan(2));
   counter.valueIs(7);
   try {
      status->counterCommit(&counter);
      ADD_FAILURE() << "the commit succeeded";
   } catch (const Pond::CorruptError& e) {
      EXPECT_STREQ(e.what(), "collection 'counter' is corrupt: its index has no empty bucket");
      EXPECT_EQ(status->corruption(), e.what());
   }
   EXPECT_EQ(watch.keys, std::vector<IpGenRouteKey>{vlan(2)});
   EXPECT_EQ(watch.tableStatus, 1);
   ::munmap(base, writer.segmentSize());
}

} // namespace
