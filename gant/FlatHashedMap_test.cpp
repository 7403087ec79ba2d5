// The one-array hashed map against std::map doing the same inserts and
// removes: runs that wrap round the array's end, removals that move later
// entries back, growth past the buckets reserved, and both ways of hashing
// (a key's bytes, or its type's hash).
#include "gant/Collection.h"

#include <gtest/gtest.h>

#include <map>

namespace {

struct Case {
   const char* name;
   std::size_t reserve;
   uint32_t keys;  // keys drawn from [0, keys)
   uint32_t steps;
   uint32_t insertPercent;
};

// Same contents, and each key found where it is and nowhere else.
template <class M, class K>
void expectSame(const M& m, const std::map<K, uint32_t>& want, uint32_t keys, const char* name, uint32_t step) {
   ASSERT_EQ(m.size(), want.size()) << name << " step " << step;
   std::size_t walked = 0;
   for (const auto& [k, v] : m) {
      ++walked;
      auto it = want.find(k);
      ASSERT_TRUE(it != want.end()) << name << " step " << step;
      EXPECT_EQ(v, it->second) << name << " step " << step;
   }
   EXPECT_EQ(walked, want.size()) << name << " step " << step;
   for (uint32_t n = 0; n < keys; ++n) {
      const K k = static_cast<K>(n);
      EXPECT_EQ(m.count(k), want.count(k)) << name << " step " << step << " key " << n;
      if (want.count(k)) {
         EXPECT_EQ(Gant::mapGet(m, k), want.at(k)) << name << " step " << step;
      }
   }
}

template <class K>
void run(const Case& c) {
   Gant::FlatHashedMap<K, uint32_t> m(c.reserve);
   std::map<K, uint32_t> want;
   uint32_t x = 12345;
   for (uint32_t step = 0; step < c.steps; ++step) {
      x = x * 1103515245u + 12345u;
      const K k = static_cast<K>((x >> 8) % c.keys);
      if ((x >> 24) % 100 < c.insertPercent) {
         auto [it, inserted] = m.try_emplace(k, step);
         EXPECT_EQ(inserted, !want.count(k)) << c.name << " step " << step;
         EXPECT_EQ(it->second, inserted ? step : want[k]) << "a present key keeps its value";
         it->second = step;
         want[k] = step;
      } else {
         EXPECT_EQ(m.erase(k), want.erase(k)) << c.name << " step " << step;
      }
      expectSame(m, want, c.keys, c.name, step);
   }
   auto cleared = m; // as a collection's DelAll does
   cleared.clear();
   EXPECT_TRUE(cleared.empty() && cleared.begin() == cleared.end()) << c.name;
   // Removed one at a time from the front, as delAll does.
   std::size_t removed = 0;
   Gant::delAll(m, [&](const K& k) {
      ++removed;
      EXPECT_TRUE(want.count(k)) << c.name;
      EXPECT_EQ(m.count(k), 0u) << c.name;
   });
   EXPECT_EQ(removed, want.size()) << c.name;
   EXPECT_TRUE(m.empty()) << c.name;
}

const Case kCases[] = {
    {"dense, within the reserve", 64, 64, 3000, 60},
    {"mostly removals", 64, 64, 3000, 35},
    {"grows past the reserve", 4, 200, 3000, 70},
    {"no reserve", 0, 40, 2000, 55},
    {"few keys, many runs", 8, 9, 2000, 50},
};

TEST(FlatHashedMap, MatchesAnOrderedMapKeyedByBytes) {
   for (const Case& c : kCases) run<uint32_t>(c);
}

// double has no unique representation: the map uses its type's hash.
TEST(FlatHashedMap, MatchesAnOrderedMapKeyedByTypeHash) {
   for (const Case& c : kCases) run<double>(c);
}

TEST(FlatHashedMap, SetSaysWhetherItChangedTheValue) {
   Gant::FlatHashedMap<uint32_t, uint32_t> m(4);
   EXPECT_TRUE(m.try_emplace(7, 1).second);
   EXPECT_FALSE(Gant::mapSet(m, 7u, 1u));
   EXPECT_TRUE(Gant::mapSet(m, 7u, 3u));
   EXPECT_EQ(Gant::mapGet(m, 7u), 3u);
   EXPECT_EQ(Gant::mapGet(m, 8u), 0u);
}

} // namespace
