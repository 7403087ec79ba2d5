#pragma once
// The layout of a table's shared segment. Every field has a fixed width and
// every area sits at an 8-byte aligned offset, so 32- and 64-bit processes
// map the same bytes the same way. Only offsets are stored, never pointers.
//
//   SegmentHeader                       (names, sizes, liveness, collections)
//   for each collection:
//     slots    capacity x SlotStride    (seqlocked records)
//     index[2] 2 x bucketCount x 4      (open addressing; two for rebuilds)
//     queue    queueLength x QueueStride (sequence-numbered change entries)
//
// See docs/shared-memory-tables.md for the protocols.
#include <cstddef>
#include <cstdint>

namespace Pond {

constexpr uint64_t kMagic = 0x31444e4f50464d43ull; // "CMFPOND1"
constexpr uint32_t kLayoutVersion = 1;
constexpr uint32_t kMaxCollections = 4;
constexpr std::size_t kTypeNameBytes = 96;
constexpr std::size_t kCollectionNameBytes = 32;
// Slot numbers live in the low 16 bits of a bucket.
constexpr uint32_t kMaxCapacity = 0xfffe;
constexpr uint32_t kMaxKeySize = 256;

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
   uint32_t reserved0;
   uint64_t slotsOffset;
   uint64_t indexOffset[2];
   uint64_t queueOffset;
   // Written by the writer, read by readers (atomically):
   uint32_t size;       // live records
   uint32_t indexEpoch; // the active index is indexOffset[indexEpoch & 1]
   uint32_t queueHead;  // sequence number of the next change entry
   uint32_t ready;      // the collection holds the writer's full state
};
static_assert(sizeof(CollectionHeader) % 8 == 0);

struct SegmentHeader {
   static constexpr uint64_t kExpectedMagic = kMagic;
   uint64_t magic;
   uint32_t layoutVersion;
   uint32_t headerSize;
   char typeName[kTypeNameBytes];
   uint64_t segmentSize;
   uint32_t collectionCount;
   uint32_t generation; // bumped by every writer that opens the segment
   uint32_t writerPid;
   uint32_t changes; // bumped after every change entry, of any collection
   CollectionHeader collections[kMaxCollections];
};
static_assert(sizeof(SegmentHeader) % 8 == 0);

// A slot: a seqlock word (odd while the writer rewrites the slot), whether
// the slot holds a record, then the record padded to whole words.
struct SlotHeader {
   uint32_t seq;
   uint32_t live;
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

// Buckets: 0 empty, low 16 bits slot + 1, or kTombstone after a removal;
// the high 16 bits carry a tag of the key's hash to skip most mismatches.
constexpr uint32_t kBucketEmpty = 0;
constexpr uint32_t kBucketTombstone = 0xffff;
constexpr uint32_t bucketSlot(uint32_t b) { return (b & 0xffff) - 1; }
constexpr uint32_t bucketTag(uint32_t hash) { return hash >> 16; }
constexpr uint32_t makeBucket(uint32_t slot, uint32_t hash) { return (hash & 0xffff0000u) | (slot + 1); }

} // namespace Pond
