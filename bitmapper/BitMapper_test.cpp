// The allocator's model as other processes and logs see it: text forms,
// the table's description, and the rows a reader looks up.
#include "bitmapper/BitMapper.h"

#include <gtest/gtest.h>

namespace {

using namespace BitMapper;

TEST(BitMapperModel, TextForms) {
   const BitMapperKey k(Pakto::IntfId("Ethernet3"), Gant::fromText<Pakto::IpGenAddr>("10.0.0.1"));
   const std::string kt = Gant::toText(k);
   const std::pair<std::string, std::string> cases[] = {
       {Gant::toText(BitIndex(10)), "10"},
       {kt, "Value('BitMapper::BitMapperKey', ** {'intfId': " + Gant::toText(k.intfId()) +
                ", 'ipGenAddr': " + Gant::toText(k.ipGenAddr()) + "})"},
       {Gant::toText(BitIndexMap(10, k, 2, true)),
        "Value('BitMapper::BitIndexMap', ** {'key': 10, 'bitMapperKey': " + kt + ", 'refCount': 2, 'isNewMapping': True})"},
       {Gant::toText(WaitlistMap(k, 3)), "Value('BitMapper::WaitlistMap', ** {'key': " + kt + ", 'refCount': 3})"},
       {Gant::toText(TableInfo()), ""},
   };
   for (const auto& [got, want] : cases) EXPECT_EQ(got, want);
   EXPECT_EQ(Gant::fromText<BitMapperKey>(kt), k);
   EXPECT_EQ(Gant::fromText<BitIndexMap>(Gant::toText(BitIndexMap(10, k, 2, true))), BitIndexMap(10, k, 2, true));
   EXPECT_TRUE(!BitIndexMap() && !WaitlistMap() && !BitMapperKey());
   EXPECT_FALSE(!k);
   EXPECT_LT(BitMapperKey(Pakto::IntfId("Ethernet1"), k.ipGenAddr()), BitMapperKey(Pakto::IntfId("Ethernet2"), {}))
       << "interface first";
}

TEST(BitMapperModel, TableInfoDescribesTheAllocatorTable) {
   EXPECT_EQ(TableInfo(), TableInfo());
   EXPECT_EQ(TableInfo::capacity(), 1024u);
   const Pond::TableShape shape = TableInfo::mountInfo("BitMapper::PondStatus");
   EXPECT_EQ(shape.typeName, "BitMapper::PondStatus");
   ASSERT_EQ(shape.collections.size(), 2u);
   EXPECT_EQ(shape.collections[0].name, "bitIndexMap");
   EXPECT_EQ(shape.collections[1].name, "waitlistMap");
   EXPECT_EQ(shape.collections[0].capacity, 1024u);
   EXPECT_EQ(shape.collections[1].capacity, 1024u);
   EXPECT_EQ(TableInfo::mountInfo("Other").typeName, "Other");
   EXPECT_EQ(pondStatusFactory(Gant::Name("b"))->maxBitIndexMaps(), 1024u);
}

} // namespace
