// The table framework in one process: writer and readers on real shared
// memory and real sockets, driven by a real epoll loop.
#include "pond/testlib/Fixture.h"
#include "sys/Calls.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>

#include <map>
#include <random>
#include <set>

namespace {

using namespace Pond;
using namespace Pond::Test;

using PondTable = TableTest;

// The writer's segment mapped writable, as another process of its user would.
unsigned char* mapSegment(const TableWriter& w) {
   const int fd = ::shm_open(w.segmentName().c_str(), O_RDWR, 0);
   void* p = ::mmap(nullptr, w.segmentSize(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   ::close(fd);
   EXPECT_NE(p, MAP_FAILED);
   return static_cast<unsigned char*>(p);
}

TEST_F(PondTable, ReaderSeesChangesInOrderAndConsistentRecords) {
   TableWriter writer(path, itemShape(), {Record<Item>::codec()}, &loop, options);
   MapWriter<Item> items(writer.collection(0));
   items.set(Item::make(1, 1));
   Recorder rec;
   TableReader reader(path, itemShape(), {Record<Item>::codec()}, loop, rec, options);
   EXPECT_FALSE(reader.ready()) << "handlers run on the loop, not in the constructor";
   ASSERT_TRUE(loop.runUntil([&] { return reader.ready(); }, 5));
   EXPECT_EQ(rec.ready, 1);
   EXPECT_EQ(rec.changed, (std::vector<uint32_t>{1})) << "mounting reports what is there";
   rec.changed.clear();
   settle();
   EXPECT_EQ(writer.readers(), 1u);

   items.set(Item::make(2, 1));
   items.set(Item::make(1, 2));
   EXPECT_FALSE(items.set(Item::make(1, 2))) << "an identical record is no change";
   items.del(2);
   EXPECT_FALSE(items.del(2));
   settle();
   EXPECT_EQ(rec.changed, (std::vector<uint32_t>{2, 1, 2}));
   MapReader<Item> view(reader.collection(0));
   auto one = view.find(1);
   ASSERT_TRUE(one);
   EXPECT_EQ(*one, Item::make(1, 2));
   EXPECT_EQ(view.find(2).status, ReadStatus::absent);
   EXPECT_EQ(view.size(), 1u);
   EXPECT_TRUE(rec.corrupt.empty());
   for (uint32_t k = 3; k < 6; ++k) items.set(Item::make(k, 1));
   settle();
   rec.changed.clear();
   items.delAll();
   settle();
   EXPECT_EQ(std::multiset<uint32_t>(rec.changed.begin(), rec.changed.end()), (std::multiset<uint32_t>{1, 3, 4, 5}))
       << "a removal of all notifies each key once";
   EXPECT_EQ(view.size(), 0u);
}

// Lookups against a plain model while keys come and go in a small index:
// probes wrap at its end, run past the home bucket's word of tags, meet
// tags of other keys, and clusters shift back on every removal. Mostly
// full: a new key is refused and changes nothing, a rewrite still works, and
// a freed slot takes a new key.
TEST_F(PondTable, LookupsAgreeWithAModelThroughChurn) {
   TableWriter writer(path, itemShape(24, 4096), {Record<Item>::codec()}, &loop, options);
   MapWriter<Item> items(writer.collection(0));
   Recorder rec;
   TableReader reader(path, itemShape(24, 4096), {Record<Item>::codec()}, loop, rec, options);
   ASSERT_TRUE(loop.runUntil([&] { return reader.ready(); }, 5));
   MapReader<Item> view(reader.collection(0));
   std::map<uint32_t, uint32_t> model; // key -> version
   std::mt19937 rng(11);
   auto check = [&](uint32_t k) {
      auto f = view.find(k);
      auto it = model.find(k);
      if (it == model.end()) return f.status == ReadStatus::absent;
      return f && *f == Item::make(k, it->second);
   };
   for (uint32_t op = 0; op < 20000; ++op) {
      const uint32_t k = rng() % 300;
      if (rng() % 2 == 0) {
         items.del(k);
         model.erase(k);
      } else if (model.size() == 24 && !model.count(k)) {
         ASSERT_THROW(items.set(Item::make(k, op)), FullError) << "key " << k << " at op " << op;
      } else {
         items.set(Item::make(k, op));
         model[k] = op;
      }
      ASSERT_TRUE(check(k)) << "key " << k << " after op " << op;
      for (uint32_t j = 0; op % 500 == 0 && j < 300; ++j) ASSERT_TRUE(check(j)) << "key " << j << " after op " << op;
   }
}

// A writer that died in the middle of changes leaves: a record mid-write,
// a rewrite in place cut short (its slot odd, the record as it was kept in
// the spare slot), a removal cut short after moving an entry back (that
// entry twice in the index, indexSeq odd), and an insert cut short before
// its tag (a live record no bucket names). The next writer puts the
// rewritten record back as it was, drops the one mid-write, and repairs the
// index in place.
TEST_F(PondTable, ARestartedWriterRepairsAnIndexLeftMidChange) {
   const TableShape shape = itemShape(64);
   constexpr uint32_t kRewritten = 39;
   auto writer = std::make_unique<TableWriter>(path, shape, std::vector{Record<Item>::codec()}, &loop, options);
   {
      MapWriter<Item> items(writer->collection(0));
      for (uint32_t k = 0; k < 40; ++k) items.set(Item::make(k, 1));
      items.set(Item::make(kRewritten, 2)); // in place: version 1 kept
   }
   unsigned char* p = mapSegment(*writer);
   CollectionMap m = CollectionMap::bind(p, layoutFor(shape), 0, &Record<Item>::hash);
   const uint32_t buckets = m.bucketMask + 1;
   auto home = [&](uint32_t b) { return m.hashKey(m.slotData(m.slotNumbers[b])) & m.bucketMask; };
   auto keyAt = [&](uint32_t b) { return keyOf<Item>(m.slotData(m.slotNumbers[b])); };
   // A removal of the entry at b cut short: the next entry, displaced, was
   // copied back into b and not yet taken from its own bucket.
   uint32_t cut = buckets;
   for (uint32_t b = 0; b < buckets && cut == buckets; ++b) {
      const uint32_t n = (b + 1) & m.bucketMask;
      if (m.tags[b] && m.tags[n] && home(n) != n && keyAt(b) != kRewritten && keyAt(n) != kRewritten) cut = b;
   }
   ASSERT_LT(cut, buckets) << "no displaced entry to move";
   const uint32_t next = (cut + 1) & m.bucketMask;
   const uint32_t removedKey = keyAt(cut), movedKey = keyAt(next);
   m.slotNumbers[cut] = m.slotNumbers[next];
   m.tags[cut] = m.tags[next];
   m.header->indexSeq |= 1;
   uint32_t midWriteKey = 0; // another key's record, left mid-write
   while (midWriteKey == removedKey || midWriteKey == movedKey) ++midWriteKey;
   for (uint32_t i = 0; i < m.capacity; ++i)
      if ((m.slot(i)->seq & kSeqLive) && keyOf<Item>(m.slotData(i)) == midWriteKey) m.slot(i)->seq |= kSeqWriting;
   // An insert of key 500 cut short before its bucket was written.
   for (uint32_t i = 0; i < m.capacity; ++i)
      if (!(m.slot(i)->seq & kSeqLive)) {
         const Item added = Item::make(500, 1);
         std::memcpy(m.slotData(i), &added, sizeof added);
         m.slot(i)->seq = nextVersion(m.slot(i)->seq) | kSeqLive;
         m.slot(i)->check = recordCheck(m.slot(i)->seq, &added, sizeof added);
         break;
      }
   // The rewrite's odd state, its bytes all written (after the insert, which
   // takes the first slot not live).
   for (uint32_t i = 0; i < m.capacity; ++i)
      if ((m.slot(i)->seq & kSeqLive) && keyOf<Item>(m.slotData(i)) == kRewritten)
         m.slot(i)->seq = nextVersion(m.slot(m.capacity)->seq) | kSeqWriting;
   ::munmap(p, writer->segmentSize());

   writer.reset(); // the flock goes as a dead writer's would
   TableWriter restarted(path, shape, {Record<Item>::codec()}, &loop, options);
   EXPECT_TRUE(restarted.recovered());
   const CollectionReader& view = restarted.view(0);
   MapReader<Item> items(view);
   std::set<uint32_t> expected{500};
   for (uint32_t k = 0; k < 40; ++k)
      if (k != midWriteKey) expected.insert(k); // the cut-short removal never freed its record
   for (uint32_t k = 0; k < 600; ++k)
      EXPECT_EQ(items.find(k).status, expected.count(k) ? ReadStatus::found : ReadStatus::absent) << "key " << k;
   EXPECT_EQ(items.size(), expected.size());
   ASSERT_TRUE(items.find(kRewritten)) << "a rewrite cut short is undone, not lost";
   EXPECT_EQ(*items.find(kRewritten), Item::make(kRewritten, 1));
   EXPECT_EQ(view.map().header->indexSeq % 2, 0u);
   // Each record named by exactly one bucket: removing every key empties the index.
   MapWriter<Item> w(restarted.collection(0));
   for (uint32_t k : expected) EXPECT_TRUE(w.del(k)) << "key " << k;
   for (uint32_t b = 0; b < buckets; ++b) EXPECT_EQ(view.map().tags[b], kTagEmpty) << "bucket " << b;
}

using PondTableDeathTest = PondTable;

TEST_F(PondTableDeathTest, ACommitOutsideAModifyAsserts) {
   TableWriter writer(path, itemShape(), {Record<Item>::codec()}, &loop, options);
   MapWriter<Item> items(writer.collection(0));
   Item& i = items.modify(7) = Item::make(7, 3);
   items.commit(&i);
   EXPECT_EQ(items.find(7)->version(), 3u);
   EXPECT_DEATH(items.commit(&i), "PondMap::directCommit\\(\\) in no man's land");
}

// Its owner-only mode, and refusals of a segment readers cannot trust, are
// PondHostile's.
TEST_F(PondTable, SegmentIsSmall) {
   TableWriter writer(path, itemShape(64), {Record<Item>::codec()}, &loop, options);
   EXPECT_LE(double(writer.segmentSize()), 1.5 * 64 * sizeof(Item) + 16384)
       << "small tables pay a fixed header and queue";
}

// A writer that cannot make a reader's wake pipe (out of descriptors, say)
// wakes that reader over its connection instead.
struct NoPipes : Sys::Calls {
   Sys::Result pipe2(int*, int) override { return {-1, EMFILE}; }
};

TEST_F(PondTable, WithoutAWakePipeTheConnectionCarriesTheWakes) {
   NoPipes noPipes;
   Sys::ScopedCalls scope(noPipes);
   TableWriter writer(path, itemShape(), {Record<Item>::codec()}, &loop, options);
   MapWriter<Item> items(writer.collection(0));
   Recorder rec;
   TableReader reader(path, itemShape(), {Record<Item>::codec()}, loop, rec, options);
   ASSERT_TRUE(loop.runUntil([&] { return reader.ready() && writer.armedReaders() == 1; }, 5));
   items.set(Item::make(5, 1));
   settle();
   EXPECT_EQ(rec.changed, (std::vector<uint32_t>{5}));
   EXPECT_EQ(reader.wakeups(), 1u);
}

TEST_F(PondTable, ASegmentTruncatedUnderItsReaderIsReportedNotFatal) {
   TableWriter writer(path, itemShape(1024), {Record<Item>::codec()}, &loop, options);
   MapWriter<Item> items(writer.collection(0));
   for (uint32_t k = 0; k < 20; ++k) items.set(Item::make(k, 1));
   Recorder rec;
   TableReader reader(path, itemShape(1024), {Record<Item>::codec()}, loop, rec, options);
   loop.runUntil([&] { return reader.ready(); }, 5);
   MapReader<Item> view(reader.collection(0));
   ASSERT_TRUE(view.find(3));
   // Cut back to its first page, which keeps the header this process's
   // writer still reads; the index goes.
   const int fd = ::shm_open(writer.segmentName().c_str(), O_RDWR, 0);
   ASSERT_EQ(::ftruncate(fd, ::sysconf(_SC_PAGESIZE)), 0);
   ::close(fd);
   for (uint32_t k = 0; k < 20; ++k) EXPECT_NE(view.find(k).status, ReadStatus::found) << k;
   EXPECT_TRUE(rec.corrupt.empty()) << "reported from the loop, not from the signal handler";
   settle();
   ASSERT_EQ(rec.corrupt.size(), 1u);
   EXPECT_EQ(rec.corrupt[0], "segment " + writer.segmentName() + " was truncated under its reader");
}

TEST_F(PondTable, GarbageInTheSegmentIsReportedNotFatal) {
   TableWriter writer(path, itemShape(), {Record<Item>::codec()}, &loop, options);
   MapWriter<Item> items(writer.collection(0));
   for (uint32_t k = 0; k < 20; ++k) items.set(Item::make(k, 1));
   Recorder rec;
   TableReader reader(path, itemShape(), {Record<Item>::codec()}, loop, rec, options);
   settle();
   unsigned char* bytes = mapSegment(writer); // scribbled over past the header
   uint32_t x = 12345;
   for (std::size_t i = sizeof(SegmentHeader); i < writer.segmentSize(); ++i) {
      x = x * 1103515245 + 12345;
      bytes[i] = static_cast<unsigned char>(x >> 16);
   }
   MapReader<Item> view(reader.collection(0));
   for (uint32_t k = 0; k < 50; ++k) EXPECT_NE(view.find(k).status, ReadStatus::found) << "garbage read as key " << k;
   // Then the header too: lookups keep to the reader's own bounds, and the
   // next poll reports the damage.
   std::memset(bytes, 0xa5, sizeof(SegmentHeader));
   EXPECT_NE(view.find(1).status, ReadStatus::found);
   reader.poll();
   EXPECT_FALSE(rec.corrupt.empty());
   ::munmap(bytes, writer.segmentSize());
}

// 32- and 64-bit processes share segments, so a record's check must not
// depend on the build (SSE2 or not, word size): every build must produce
// these values.
TEST(PondRecordCheck, TheSameOnEveryBuild) {
   unsigned char bytes[163];
   for (int i = 0; i < 163; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + 3);
   struct Case {
      uint32_t seq;
      std::size_t size;
      uint32_t check;
   } cases[] = {{6, 160, 0xe4788b34}, {6, 163, 0x3e59a7b9}, {10, 24, 0x3f3c9db2}};
   for (const Case& c : cases) EXPECT_EQ(Pond::recordCheck(c.seq, bytes, c.size), c.check) << c.size;
   // A byte moved, or a version changed, changes the check.
   std::swap(bytes[0], bytes[4]);
   EXPECT_NE(Pond::recordCheck(6, bytes, 160), 0xe4788b34u);
   EXPECT_NE(Pond::recordCheck(10, bytes, 160), Pond::recordCheck(6, bytes, 160));
}

} // namespace
