// Route key hash, equality and ordering beside the same operations on
// std::pair<uint64_t, uint64_t>, over the same number of distinct values.
#include "fib/RouteKey.h"

#include <benchmark/benchmark.h>

#include <functional>
#include <random>
#include <utility>
#include <vector>

namespace {

using Routing::Multicast::Fib::IpGenRouteKey;
using Pair = std::pair<uint64_t, uint64_t>;

constexpr std::size_t kCount = 4096; // a power of two
constexpr std::size_t kMask = kCount - 1;

// (S,G) keys as a producer holds them: many sources over few groups.
std::vector<IpGenRouteKey> keys() {
   std::vector<IpGenRouteKey> v;
   std::mt19937 rng(42);
   for (std::size_t i = 0; i < kCount; ++i) {
      uint32_t s = 0x0a000000u | (rng() & 0xffffff);
      uint32_t g = 0xef000000u | (rng() & 0xff);
      v.push_back(Routing::Multicast::Fib::makeRouteKeyMroute(
          Pakto::Prefix(Pakto::IpAddr::fromHost(s), 32), Pakto::Prefix(Pakto::IpAddr::fromHost(g), 32)));
   }
   return v;
}

std::vector<Pair> pairs() {
   std::vector<Pair> v;
   std::mt19937 rng(42);
   for (std::size_t i = 0; i < kCount; ++i) {
      uint64_t s = 0x0a000000u | (rng() & 0xffffff);
      uint64_t g = 0xef000000u | (rng() & 0xff);
      v.emplace_back(g, s);
   }
   return v;
}

// The usual way to hash a pair: hash both halves and combine.
struct PairHash {
   std::size_t operator()(const Pair& p) const noexcept {
      std::size_t h = std::hash<uint64_t>{}(p.first);
      return h ^ (std::hash<uint64_t>{}(p.second) + 0x9e3779b97f4a7c15ull + (h << 6) + (h >> 2));
   }
};

void BM_Hash_Pair(benchmark::State& state) {
   auto v = pairs();
   std::size_t i = 0;
   for (auto _ : state) benchmark::DoNotOptimize(PairHash{}(v[i++ & kMask]));
}
BENCHMARK(BM_Hash_Pair);

void BM_Hash_IpGenRouteKey(benchmark::State& state) {
   auto v = keys();
   std::size_t i = 0;
   for (auto _ : state) benchmark::DoNotOptimize(v[i++ & kMask].hash());
}
BENCHMARK(BM_Hash_IpGenRouteKey);

// Equal operands: the whole value must be compared.
void BM_EqualSame_Pair(benchmark::State& state) {
   auto v = pairs();
   auto w = v;
   std::size_t i = 0;
   for (auto _ : state) {
      std::size_t j = i++ & kMask;
      benchmark::DoNotOptimize(v[j] == w[j]);
   }
}
BENCHMARK(BM_EqualSame_Pair);

void BM_EqualSame_IpGenRouteKey(benchmark::State& state) {
   auto v = keys();
   auto w = v;
   std::size_t i = 0;
   for (auto _ : state) {
      std::size_t j = i++ & kMask;
      benchmark::DoNotOptimize(v[j] == w[j]);
   }
}
BENCHMARK(BM_EqualSame_IpGenRouteKey);

void BM_EqualOther_Pair(benchmark::State& state) {
   auto v = pairs();
   std::size_t i = 0;
   for (auto _ : state) {
      std::size_t j = i++;
      benchmark::DoNotOptimize(v[j & kMask] == v[(j + 1) & kMask]);
   }
}
BENCHMARK(BM_EqualOther_Pair);

void BM_EqualOther_IpGenRouteKey(benchmark::State& state) {
   auto v = keys();
   std::size_t i = 0;
   for (auto _ : state) {
      std::size_t j = i++;
      benchmark::DoNotOptimize(v[j & kMask] == v[(j + 1) & kMask]);
   }
}
BENCHMARK(BM_EqualOther_IpGenRouteKey);

void BM_Less_Pair(benchmark::State& state) {
   auto v = pairs();
   std::size_t i = 0;
   for (auto _ : state) {
      std::size_t j = i++;
      benchmark::DoNotOptimize(v[j & kMask] < v[(j * 7 + 3) & kMask]);
   }
}
BENCHMARK(BM_Less_Pair);

void BM_Less_IpGenRouteKey(benchmark::State& state) {
   auto v = keys();
   std::size_t i = 0;
   for (auto _ : state) {
      std::size_t j = i++;
      benchmark::DoNotOptimize(v[j & kMask] < v[(j * 7 + 3) & kMask]);
   }
}
BENCHMARK(BM_Less_IpGenRouteKey);

} // namespace
