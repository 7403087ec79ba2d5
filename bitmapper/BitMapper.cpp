#include "bitmapper/BitMapper.h"

namespace BitMapper {

void TableInfo::gantText(std::string&) const {}

TableInfo TableInfo::gantParse(Gant::TextReader&) { return TableInfo(); }

Pond::TableShape TableInfo::mountInfo(const Gant::String& type) {
   Pond::TableShape shape = PondStatus::tableShape();
   shape.typeName = type;
   return shape;
}

BitIndexMap PondStatus::lookupBitIndex(BitIndex i) const {
   Pond::Found<BitIndexMap> row = bitIndexMap(i);
   return row ? *row : BitIndexMap();
}

bool PondStatus::isNewMapping(BitIndex i) const { return lookupBitIndex(i).isNewMapping(); }

uint32_t PondStatus::maxBitIndexMaps() const noexcept { return TableInfo::capacity(); }

Pond::TableShape PondStatus::mountInfo() { return tableShape(); }

void PondStatus::openAllocatorTable(const std::string& mountPath, Loop::EventLoop* loop, Pond::Options options) {
   options.keepOtherLayout = true;
   openWriter(mountPath, loop, options);
}

Gant::Ptr<Config> configFactory(uint32_t bitMapSize, bool enableRefCount) {
   Gant::Ptr<Config> c = configFactory(Gant::Name("config"));
   c->bitMapSizeIs(bitMapSize);
   c->enableRefCountIs(enableRefCount);
   return c;
}

} // namespace BitMapper
