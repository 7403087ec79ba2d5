#include "pond/Shape.h"
#include "pond/WordCopy.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>

namespace Pond {

namespace {

void copyName(char* dst, std::size_t cap, const std::string& s, const char* what) {
   if (s.size() >= cap) throw std::invalid_argument(std::string(what) + " '" + s + "' too long");
   std::memset(dst, 0, cap);
   std::memcpy(dst, s.data(), s.size());
}

uint32_t pow2AtLeast(uint64_t n) { return static_cast<uint32_t>(std::bit_ceil(n < 2 ? 2 : n)); }

} // namespace

SegmentHeader layoutFor(const TableShape& shape) {
   SegmentHeader h;
   std::memset(&h, 0, sizeof h);
   h.magic = kMagic;
   h.layoutVersion = kLayoutVersion;
   h.headerSize = sizeof(SegmentHeader);
   copyName(h.typeName, sizeof h.typeName, shape.typeName, "table type");
   if (shape.collections.empty() || shape.collections.size() > kMaxCollections)
      throw std::invalid_argument("a table holds 1 to 4 collections");
   h.collectionCount = static_cast<uint32_t>(shape.collections.size());
   uint64_t offset = (sizeof(SegmentHeader) + 63) / 64 * 64;
   for (std::size_t i = 0; i < shape.collections.size(); ++i) {
      const CollectionShape& s = shape.collections[i];
      CollectionHeader& c = h.collections[i];
      copyName(c.name, sizeof c.name, s.name, "collection name");
      copyName(c.recordType, sizeof c.recordType, s.recordType, "record type");
      if (s.capacity == 0 || s.capacity > kMaxCapacity)
         throw std::invalid_argument("collection capacity must be 1 to 65534");
      if (s.keySize == 0 || s.keySize > s.recordSize || s.keySize > kMaxKeySize)
         throw std::invalid_argument("the key must be a non-empty prefix of the record");
      c.recordSize = s.recordSize;
      c.keySize = s.keySize;
      c.capacity = s.capacity;
      // At most half full, so that probes stay short.
      c.bucketCount = std::max(kMinBuckets, pow2AtLeast(uint64_t(s.capacity) * 2 + 1));
      c.queueLength = pow2AtLeast(s.queueLength ? s.queueLength : std::min<uint32_t>(s.capacity, 2048));
      c.slotStride = slotStrideFor(s.recordSize);
      c.queueStride = static_cast<uint32_t>(sizeof(QueueEntryHeader) + roundUp8(s.keySize));
      offset = (offset + 63) / 64 * 64; // slots start on a cache line
      c.slotsOffset = offset;
      // One slot more: the copy a rewrite in place keeps of the record it replaces.
      offset += uint64_t(c.slotStride) * (c.capacity + 1);
      c.indexOffset = offset;
      offset += indexBytes(c.bucketCount);
      c.queueOffset = offset;
      offset += uint64_t(c.queueStride) * c.queueLength;
   }
   h.segmentSize = offset;
   return h;
}

std::string layoutMismatch(const SegmentHeader& e, const SegmentHeader& f) {
   if (f.magic != e.magic) return "bad magic";
   if (f.layoutVersion != e.layoutVersion)
      return "layout version " + std::to_string(f.layoutVersion) + ", expected " + std::to_string(e.layoutVersion);
   if (f.headerSize != e.headerSize) return "header size differs";
   if (std::memcmp(f.typeName, e.typeName, sizeof e.typeName) != 0)
      return std::string("type '") + std::string(f.typeName, strnlen(f.typeName, sizeof f.typeName)) +
             "', expected '" + e.typeName + "'";
   if (f.segmentSize != e.segmentSize) return "segment size differs";
   if (f.collectionCount != e.collectionCount) return "collection count differs";
   for (uint32_t i = 0; i < e.collectionCount; ++i) {
      const CollectionHeader& a = e.collections[i];
      const CollectionHeader& b = f.collections[i];
      std::string where = std::string("collection '") + a.name + "': ";
      if (std::memcmp(a.name, b.name, sizeof a.name) != 0) return where + "name differs";
      if (std::memcmp(a.recordType, b.recordType, sizeof a.recordType) != 0) return where + "record type differs";
      if (a.recordSize != b.recordSize) return where + "record size differs";
      if (a.keySize != b.keySize) return where + "key size differs";
      if (a.capacity != b.capacity) return where + "capacity differs";
      if (a.bucketCount != b.bucketCount || a.queueLength != b.queueLength || a.slotStride != b.slotStride ||
          a.queueStride != b.queueStride || a.slotsOffset != b.slotsOffset || a.queueOffset != b.queueOffset ||
          a.indexOffset != b.indexOffset)
         return where + "layout differs";
   }
   return {};
}

std::string segmentName(const std::string& prefix, const std::string& mountPath) {
   std::string out = "/" + prefix + ".";
   for (char c : mountPath) {
      if (c == '/') out += "%2f";
      else if (c == '%') out += "%25";
      else out += c;
   }
   return out;
}

std::string decodeMountPath(std::string_view s) {
   std::string out;
   for (std::size_t i = 0; i < s.size(); ++i) {
      if (s.compare(i, 3, "%2f") == 0) out += '/', i += 2;
      else if (s.compare(i, 3, "%25") == 0) out += '%', i += 2;
      else out += s[i];
   }
   return out;
}

} // namespace Pond
