// A counter commit that finds its table corrupt: the table hears of it, the
// key is still notified and the caller gets the error.
#include "fib/Counter.h"
#include "loop/EpollLoop.h"
#include "pond/testlib/Fixture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

namespace {

using namespace Routing::Multicast::Fib;

IpGenRouteKey vlan(uint16_t v) { return makeRouteKeyVlanFloodset(v); }

TEST(FibCounterStatus, CommitOnACorruptTableNotifiesTheKeyAndRaises) {
   Loop::EpollLoop loop;
   auto status = counterStatusFactory("counters");
   status->openWriter("routing/multicast/counter/corrupt", &loop, Pond::Test::uniqueOptions());
   status->counterIs(Counter(vlan(1)));
   struct Watch : CounterStatus::Reactor {
      using CounterStatus::Reactor::Reactor;
      std::vector<IpGenRouteKey> keys;
      int tableStatus = 0;
      void onCounter(const IpGenRouteKey& k) override { keys.push_back(k); }
      void onTableStatus() override { ++tableStatus; }
   } watch(status.ptr());

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
   writer.unlink();
}

} // namespace
