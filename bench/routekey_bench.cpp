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

template <class V> std::vector<V> samples();
template <> std::vector<Pair> samples<Pair>() { return pairs(); }
template <> std::vector<IpGenRouteKey> samples<IpGenRouteKey>() { return keys(); }

uint32_t hashOf(const IpGenRouteKey& k) { return k.hash(); }
std::size_t hashOf(const Pair& p) { return PairHash{}(p); }

template <class V>
void BM_Hash(benchmark::State& state) {
   auto v = samples<V>();
   std::size_t i = 0;
   for (auto _ : state) benchmark::DoNotOptimize(hashOf(v[i++ & kMask]));
}
BENCHMARK_TEMPLATE(BM_Hash, Pair);
BENCHMARK_TEMPLATE(BM_Hash, IpGenRouteKey);

// Equal operands: the whole value must be compared.
template <class V>
void BM_EqualSame(benchmark::State& state) {
   auto v = samples<V>();
   auto w = v;
   std::size_t i = 0;
   for (auto _ : state) {
      std::size_t j = i++ & kMask;
      benchmark::DoNotOptimize(v[j] == w[j]);
   }
}
BENCHMARK_TEMPLATE(BM_EqualSame, Pair);
BENCHMARK_TEMPLATE(BM_EqualSame, IpGenRouteKey);

template <class V>
void BM_EqualOther(benchmark::State& state) {
   auto v = samples<V>();
   std::size_t i = 0;
   for (auto _ : state) {
      std::size_t j = i++;
      benchmark::DoNotOptimize(v[j & kMask] == v[(j + 1) & kMask]);
   }
}
BENCHMARK_TEMPLATE(BM_EqualOther, Pair);
BENCHMARK_TEMPLATE(BM_EqualOther, IpGenRouteKey);

template <class V>
void BM_Less(benchmark::State& state) {
   auto v = samples<V>();
   std::size_t i = 0;
   for (auto _ : state) {
      std::size_t j = i++;
      benchmark::DoNotOptimize(v[j & kMask] < v[(j * 7 + 3) & kMask]);
   }
}
BENCHMARK_TEMPLATE(BM_Less, Pair);
BENCHMARK_TEMPLATE(BM_Less, IpGenRouteKey);

} // namespace
