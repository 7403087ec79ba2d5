#pragma once
// The layout of a table's shared segment. Every field has a fixed width and
// every area sits at an 8-byte aligned offset, so 32- and 64-bit processes
// map the same bytes the same way. Only offsets are stored, never pointers.
//
//   SegmentHeader                       (names, sizes, liveness, collections)
//   for each collection:
//     slots    capacity x SlotStride    (seqlocked records)
//     index    bucketCount x 3          (open addressing, linear probing)
//     queue    queueLength x QueueStride (sequence-numbered change entries)
//
// See docs/shared-memory-tables.md for the protocols.
#include <cstddef>
#include <cstdint>

namespace Pond {

constexpr uint64_t kMagic = 0x31444e4f50464d43ull; // "CMFPOND1"
constexpr uint32_t kLayoutVersion = 6;
constexpr uint32_t kMaxCollections = 4;
constexpr std::size_t kTypeNameBytes = 96;
constexpr std::size_t kCollectionNameBytes = 32;
// Slot numbers are 16 bits wide in the index.
constexpr uint32_t kMaxCapacity = 0xfffe;
constexpr uint32_t kMaxKeySize = 256;

// Shared areas are padded to whole 8-byte words on every build.
constexpr uint64_t roundUp8(uint64_t n) { return (n + 7) & ~uint64_t(7); }

struct CollectionHeader {
   char name[kCollectionNameBytes];
   char recordType[kTypeNameBytes];
   uint32_t recordSize;
   uint32_t keySize;
   uint32_t capacity;
   uint32_t bucketCount; // a power of two
   uint32_t queueLength; // a power of two
   uint32_t slotStride;
   uint32_t queueStride;
   uint32_t slotsUsed; // no slot at or past it was ever written: walks stop there
   uint64_t slotsOffset;
   uint64_t indexOffset;
   uint64_t queueOffset;
   // Written by the writer, read by readers (atomically):
   uint32_t size;      // live records
   uint32_t indexSeq;  // odd while entries of the index move (a removal)
   uint32_t queueHead; // sequence number of the next change entry
   uint32_t ready;     // the collection holds the writer's full state
};
static_assert(sizeof(CollectionHeader) % 8 == 0);

struct SegmentHeader {
   static constexpr uint64_t kExpectedMagic = kMagic;
   uint64_t magic;
   uint32_t layoutVersion;
   uint32_t headerSize;
   char typeName[kTypeNameBytes];
   uint64_t segmentSize;
   // Drawn when the segment is created and kept by every writer that
   // recovers it: slot versions compare only within one incarnation.
   uint64_t incarnation;
   uint32_t collectionCount;
   uint32_t generation; // bumped by every writer that opens the segment
   uint32_t writerPid;
   uint32_t changes; // bumped after every change entry, of any collection
   uint32_t writerTid; // the writer's thread: the one that makes changes
   uint32_t reserved;
   CollectionHeader collections[kMaxCollections];
};
static_assert(sizeof(SegmentHeader) % 8 == 0);
static_assert(offsetof(SegmentHeader, collections) % 8 == 0, "the same offsets on 32- and 64-bit builds");

// A slot: a seqlock word, then the record padded to whole words. The word
// holds the slot's state as well as its version, so that one load tells a
// reader both: bit 0 is set while the writer rewrites the slot, bit 1 when
// the slot holds a record, and the bits above count versions.
constexpr uint32_t kSeqWriting = 1;
constexpr uint32_t kSeqLive = 2;
// The first seq of the slot's next version, whatever it holds now.
constexpr uint32_t nextVersion(uint32_t seq) { return (seq | 3) + 1; }
struct SlotHeader {
   uint32_t seq;
   uint32_t check; // recordCheck(seq, record) of a live record, written with it
};
static_assert(sizeof(SlotHeader) == 8);

// A change entry: its own seqlock word, the change's sequence number, the slot
// it concerns with that slot's seq after the change, then the key.
struct QueueEntryHeader {
   uint32_t lock;
   uint32_t sequence;
   uint32_t slot;
   uint32_t slotSeq;
};
static_assert(sizeof(QueueEntryHeader) == 16);

// An index: one tag byte per bucket, then one 16-bit slot number per bucket.
// A probe tests a word of tag bytes at once (a 12000-record table's tags fit
// in a first-level cache) and reads a slot number only on a tag match. A tag
// byte is empty (0) or a tag of the key's hash. Removal shifts the entries
// after the removed one back, so no tombstone is left and no entry is ever
// separated from its home bucket by an empty one. Tags are only ever
// stored and loaded as whole aligned words, so that no byte store meets a
// word load.
constexpr uint8_t kTagEmpty = 0;
constexpr uint8_t bucketTag(uint32_t hash) {
   const auto t = static_cast<uint8_t>(hash >> 24);
   return static_cast<uint8_t>(t + (t == kTagEmpty));
}
// At least two 8-byte words of tags, so a probe's window of tags starting
// at any bucket lies in two words of the index.
constexpr uint32_t kMinBuckets = 16;
constexpr uint64_t indexTagBytes(uint32_t bucketCount) { return roundUp8(bucketCount); }
constexpr uint64_t indexBytes(uint32_t bucketCount) {
   return indexTagBytes(bucketCount) + roundUp8(uint64_t(bucketCount) * 2);
}

// A slot's stride: whole cache lines when that costs at most a quarter
// more (a lookup then touches the fewest lines), else whole words. A
// function of the record size alone, so a typed reader knows it statically.
constexpr uint32_t slotStrideFor(uint32_t recordSize) {
   const uint64_t tight = sizeof(SlotHeader) + roundUp8(recordSize);
   const uint64_t lines = (tight + 63) / 64 * 64;
   return static_cast<uint32_t>(lines * 4 <= tight * 5 ? lines : tight);
}

} // namespace Pond
