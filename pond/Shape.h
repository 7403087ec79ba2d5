#pragma once
// What a table holds: its type name and, per collection, the record size, the
// key size (the key is the record's first bytes) and the capacity. Writer and
// readers derive the same layout from the same shape; a reader refuses a
// segment whose header does not match what it derives.
#include "pond/Layout.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Pond {

struct CollectionShape {
   std::string name;
   std::string recordType;
   uint32_t recordSize = 0;
   uint32_t keySize = 0;
   uint32_t capacity = 0;
   // Change entries kept for readers; 0 picks a default. A reader further
   // behind than this resynchronises with one pass over the collection.
   uint32_t queueLength = 0;
};

struct TableShape {
   std::string typeName;
   std::vector<CollectionShape> collections;
};

// The header a writer writes for shape, with every offset and size filled in
// and the mutable fields zero. Throws std::invalid_argument for a shape the
// layout cannot hold.
SegmentHeader layoutFor(const TableShape& shape);

// Empty when the static part of `found` equals `expected`, else what differs.
std::string layoutMismatch(const SegmentHeader& expected, const SegmentHeader& found);

// The shared-memory object name of a table mounted at path: "/" + prefix + "."
// + the path with '/' written as '%2f' and '%' as '%25' (names cannot hold '/').
std::string segmentName(const std::string& prefix, const std::string& mountPath);
// The mount path back from its encoded form (what follows the prefix and the
// dot in a segment's name).
std::string decodeMountPath(std::string_view encoded);

} // namespace Pond
