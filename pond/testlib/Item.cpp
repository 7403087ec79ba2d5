#include "pond/testlib/Item.h"

namespace Pond::Test {

Item Item::make(uint32_t key, uint32_t version) {
   Item i(key);
   i.versionIs(version);
   uint64_t x = (uint64_t(key) << 32) | version;
   i.aIs(x);
   i.bIs(~x);
   i.cIs(x * 0x9e3779b97f4a7c15ull);
   return i;
}

bool Item::whole() const {
   uint64_t x = (uint64_t(key()) << 32) | version();
   return a() == x && b() == ~x && c() == x * 0x9e3779b97f4a7c15ull;
}

} // namespace Pond::Test
