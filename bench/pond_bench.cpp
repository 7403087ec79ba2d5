// The shared-memory tables beside in-process baselines, in one run:
// lookups and writes against std::unordered_map, notification latency
// against a raw eventfd wake-up between the same two processes, wake-ups per
// burst, the cost of reacting to K changes, and the segment's size.
#include "loop/EpollLoop.h"
#include "pond/testlib/Fixture.h"
#include "shmfib/RouteTable.h"

#include <benchmark/benchmark.h>

#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <unordered_map>

namespace {

using Pond::Multicast::Fib::Route;
using Routing::Multicast::Fib::IpGenRouteKey;

constexpr uint32_t kRoutes = 12000;

IpGenRouteKey routeKey(uint32_t i) {
   return Routing::Multicast::Fib::makeRouteKeyMroute(
       Pakto::Prefix(Pakto::IpAddr::fromHost(0x0a000000u + i * 7919u % 0xffffffu), 32),
       Pakto::Prefix(Pakto::IpAddr::fromHost(0xef000000u + i % 251u), 32));
}

Route route(uint32_t i, uint32_t version) {
   Route r(routeKey(i));
   r.iifIs(Pakto::IntfId("Ethernet1"));
   r.oifIs(i % 512, true);
   r.maxOifIndexIs(511);
   r.versionIs(version);
   return r;
}

// A writer entity and a reader entity of one 12000-route table.
struct RouteTables {
   Loop::EpollLoop loop;
   Pond::Options options = Pond::Test::uniqueOptions();
   std::string path = "routing/multicast/routestatus/default/bench";
   Gant::Ptr<Pond::Multicast::Fib::Status> writer = Pond::Multicast::Fib::statusFactory("bench");
   Gant::Ptr<Pond::Multicast::Fib::Status> reader = Pond::Multicast::Fib::statusFactory("bench");
   RouteTables() {
      writer->openWriter(path, &loop, options);
      for (uint32_t i = 0; i < kRoutes; ++i) writer->routeIs(route(i, 1));
      reader->openReader(path, loop, options);
      loop.runUntil([&] { return reader->tableReady(); }, 5);
   }
   ~RouteTables() { writer->tableWriter()->unlink(); }
};

using Map = std::unordered_map<IpGenRouteKey, Route, Gant::Hash<IpGenRouteKey>>;

Map mapOfRoutes() {
   Map m;
   m.reserve(kRoutes);
   for (uint32_t i = 0; i < kRoutes; ++i) m.emplace(routeKey(i), route(i, 1));
   return m;
}

// The keys a lookup benchmark probes, in a fixed random order:
//  - every route: each of the table's 12000 routes (or 12000 absent keys)
//    once per pass, the table's whole working set;
//  - hot subset: 4096 draws that touch about 3500 routes, a working set
//    that fits the second-level cache, where instruction counts decide.
enum class Probes { everyRoute, hotSubset };

std::vector<IpGenRouteKey> probeKeys(Probes probes, bool present) {
   const uint32_t base = present ? 0 : kRoutes;
   std::vector<IpGenRouteKey> v;
   std::mt19937 rng(7);
   if (probes == Probes::everyRoute) {
      for (uint32_t i = 0; i < kRoutes; ++i) v.push_back(routeKey(base + i));
      std::shuffle(v.begin(), v.end(), rng);
   } else {
      for (int i = 0; i < 4096; ++i) v.push_back(routeKey(base + rng() % kRoutes));
   }
   return v;
}

// Cycles through the probe keys, the same way for both structures.
struct ProbeCycle {
   std::vector<IpGenRouteKey> keys;
   std::size_t i = 0;
   const IpGenRouteKey& next() {
      const IpGenRouteKey& k = keys[i];
      if (++i == keys.size()) i = 0;
      return k;
   }
};

void BM_LookupHit_UnorderedMap(benchmark::State& state, Probes probes) {
   Map m = mapOfRoutes();
   ProbeCycle keys{probeKeys(probes, true)};
   for (auto _ : state) {
      auto it = m.find(keys.next());
      Route copy = it->second;
      benchmark::DoNotOptimize(copy);
   }
}

void BM_LookupHit_SharedTable(benchmark::State& state, Probes probes) {
   RouteTables t;
   ProbeCycle keys{probeKeys(probes, true)};
   for (auto _ : state) {
      auto f = t.reader->route(keys.next());
      benchmark::DoNotOptimize(f);
   }
}

void BM_LookupMiss_UnorderedMap(benchmark::State& state, Probes probes) {
   Map m = mapOfRoutes();
   ProbeCycle keys{probeKeys(probes, false)};
   for (auto _ : state) benchmark::DoNotOptimize(m.find(keys.next()) == m.end());
}

void BM_LookupMiss_SharedTable(benchmark::State& state, Probes probes) {
   RouteTables t;
   ProbeCycle keys{probeKeys(probes, false)};
   for (auto _ : state) benchmark::DoNotOptimize(t.reader->route(keys.next()).status);
}

BENCHMARK_CAPTURE(BM_LookupHit_UnorderedMap, every_route, Probes::everyRoute);
BENCHMARK_CAPTURE(BM_LookupHit_SharedTable, every_route, Probes::everyRoute);
BENCHMARK_CAPTURE(BM_LookupMiss_UnorderedMap, every_route, Probes::everyRoute);
BENCHMARK_CAPTURE(BM_LookupMiss_SharedTable, every_route, Probes::everyRoute);
BENCHMARK_CAPTURE(BM_LookupHit_UnorderedMap, hot_subset, Probes::hotSubset);
BENCHMARK_CAPTURE(BM_LookupHit_SharedTable, hot_subset, Probes::hotSubset);
BENCHMARK_CAPTURE(BM_LookupMiss_UnorderedMap, hot_subset, Probes::hotSubset);
BENCHMARK_CAPTURE(BM_LookupMiss_SharedTable, hot_subset, Probes::hotSubset);

// Rewrites of present routes, for both write benchmarks.
std::vector<Route> rewrites() {
   std::vector<Route> routes;
   for (uint32_t i = 0; i < 4096; ++i) routes.push_back(route(i * 2 % kRoutes, 2));
   return routes;
}

void BM_Write_UnorderedMap(benchmark::State& state) {
   Map m = mapOfRoutes();
   std::vector<Route> routes = rewrites();
   uint32_t i = 0, version = 2;
   for (auto _ : state) {
      Route& r = routes[i++ & 4095];
      r.versionIs(++version);
      m[r.key()] = r;
   }
}
BENCHMARK(BM_Write_UnorderedMap);

// Insert-or-replace with its sequence, change entry and (no) wake-up.
void BM_Write_SharedTable(benchmark::State& state) {
   RouteTables t;
   std::vector<Route> routes = rewrites();
   uint32_t i = 0, version = 2;
   for (auto _ : state) {
      Route& r = routes[i++ & 4095];
      r.versionIs(++version);
      t.writer->routeIs(r);
   }
}
BENCHMARK(BM_Write_SharedTable);

// A writer and an in-process reader (polled by hand) of an item table
// filled with 12000 records.
struct ItemTables {
   struct Count : Pond::TableHandler {
      uint64_t n = 0;
      void onChange(std::size_t, const void*) override { ++n; }
   };
   Loop::EpollLoop loop;
   Pond::Options options = Pond::Test::uniqueOptions();
   Pond::TableShape shape;
   Pond::TableWriter writer;
   Pond::MapWriter<Pond::Test::Item> items;
   Count count;
   Pond::TableReader reader;
   uint32_t version = 1;

   ItemTables(const char* path, uint32_t capacity, uint32_t queueLength)
       : shape{"Pond::Test::ItemTable", {Pond::Record<Pond::Test::Item>::shape("item", capacity, queueLength)}},
         writer(path, shape, {Pond::Record<Pond::Test::Item>::codec()}, nullptr, options),
         items((fill(), writer.collection(0))),
         reader(path, shape, {Pond::Record<Pond::Test::Item>::codec()}, loop, count, options) {
      loop.runUntil([&] { return reader.ready(); }, 5);
   }
   ~ItemTables() { writer.unlink(); }
   void fill() {
      Pond::MapWriter<Pond::Test::Item> w(writer.collection(0));
      for (uint32_t i = 0; i < 12000; ++i) w.set(Pond::Test::Item::make(i, 1));
   }
   void change(uint32_t keys) {
      ++version;
      for (uint32_t i = 0; i < keys; ++i) items.set(Pond::Test::Item::make(i, version));
   }
   // Times only the reader's poll after each round of `keys` changes.
   void timePolls(benchmark::State& state, uint32_t keys) {
      for (auto _ : state) {
         state.PauseTiming();
         change(keys);
         state.ResumeTiming();
         reader.poll();
      }
   }
};

// Reacting to K changed keys: one poll after K writes (queue long enough).
void BM_React(benchmark::State& state) {
   const auto k = static_cast<uint32_t>(state.range(0));
   ItemTables t("bench/react", 16384, 16384);
   t.timePolls(state, k);
   state.counters["per_key_ns"] = benchmark::Counter(
       double(k), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_React)->Arg(1)->Arg(100)->Arg(10000);

// An overrun: more changes than the queue holds, so one pass over the table.
void BM_OverrunResync(benchmark::State& state) {
   ItemTables t("bench/overrun", 12000, 1024);
   t.timePolls(state, 2000);
   state.counters["resyncs"] = double(t.reader.resyncs());
}
BENCHMARK(BM_OverrunResync);

// A bare pass over the same table's slots, for comparison with the resync.
void BM_FullPass(benchmark::State& state) {
   ItemTables t("bench/pass", 12000, 1024);
   Pond::Test::Item item;
   for (auto _ : state)
      for (uint32_t i = 0; i < 12000; ++i) benchmark::DoNotOptimize(t.reader.collection(0).readSlot(i, &item));
}
BENCHMARK(BM_FullPass);

void BM_SegmentSize(benchmark::State& state) {
   Pond::TableShape shape = Pond::Multicast::Fib::TableInfo::mfibMountInfo();
   for (auto _ : state) benchmark::DoNotOptimize(Pond::layoutFor(shape));
   const double records = 12000.0 * sizeof(Route) + 1024.0 * sizeof(Pond::Multicast::Fib::OifIndexIntf);
   state.counters["segment_bytes"] = double(Pond::layoutFor(shape).segmentSize);
   state.counters["ratio_to_records"] = double(Pond::layoutFor(shape).segmentSize) / records;
}
BENCHMARK(BM_SegmentSize);

} // namespace
