// The allocator's hand-written model: what null and invalid indexes mean,
// and the description of its table that holds nothing.
#include "bitmapper/BitMapper.h"

#include <gtest/gtest.h>

namespace {

using namespace BitMapper;

TEST(BitMapperModel, NullAndInvalidIndexesAreDifferentTests) {
   EXPECT_TRUE(BitIndex().isNull() && BitIndex::null().isValid());
   EXPECT_FALSE(BitIndex::invalid().isValid() || BitIndex::invalid().isNull());
   EXPECT_TRUE(BitIndex(7).isValid() && !BitIndex(7).isNull());
}

TEST(BitMapperModel, TableInfoDescribesTheAllocatorTable) {
   EXPECT_EQ(Gant::toText(TableInfo()), "");
   EXPECT_EQ(Gant::fromText<TableInfo>(""), TableInfo());
   const Pond::TableShape shape = TableInfo::mountInfo("Other");
   EXPECT_EQ(shape.typeName, "Other");
   EXPECT_EQ(Pond::layoutFor(shape).segmentSize, Pond::layoutFor(PondStatus::tableShape()).segmentSize);
   // The allocator sizes its pool and waiting list by the table's capacity.
   for (const Pond::CollectionShape& c : shape.collections) EXPECT_EQ(c.capacity, TableInfo::capacity()) << c.name;
   EXPECT_EQ(pondStatusFactory(Gant::Name("b"))->maxBitIndexMaps(), TableInfo::capacity());
}

} // namespace
