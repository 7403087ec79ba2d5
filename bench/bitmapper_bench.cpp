// The bit index allocator beside plain in-process structures, in one run:
// one key allocated and released through the request counters, with its
// shared-table writes, against a std::deque FIFO and a std::unordered_map
// doing the same bookkeeping; and recovery from a full table of 1024 rows
// against one pass of a reader over those rows.
#include "bitmapper/BitMapperSm.h"
#include "loop/EpollLoop.h"
#include "pond/testlib/Fixture.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <deque>
#include <unordered_map>

namespace {

using namespace BitMapper;

constexpr uint32_t kRange = 1024;

BitMapperKey key(uint32_t n) {
   return BitMapperKey(Pakto::IntfId("Ethernet" + std::to_string(n + 1)),
                       Pakto::IpGenAddr(Pakto::IpAddr::fromHost(0x0a000000 + n)));
}

struct Allocator {
   Pond::Options options = Pond::Test::uniqueOptions();
   std::string path = "bitmapper/bench";
   Gant::Ptr<Config> config = configFactory(kRange, true);
   Gant::Ptr<Status> status = statusFactory(Gant::Name("status"));
   Gant::Ptr<PondStatus> pond = pondStatusFactory(Gant::Name("bitmap"));
   Gant::Ptr<BitMapperSm> sm;
   Allocator() {
      pond->openAllocatorTable(path, nullptr, options);
      sm = bitMapperSmFactory(config, status, pond);
   }
   ~Allocator() {
      sm = nullptr;
      pond->tableWriter()->unlink();
   }
   void alloc(const BitMapperKey& k) {
      config->allocRequestKeyIs(k);
      config->allocRequestCountInc();
   }
   void release(const BitMapperKey& k) {
      config->deallocRequestKeyIs(k);
      config->deallocRequestCountInc();
   }
};

void BM_AllocRelease_DequeAndMap(benchmark::State& state) {
   std::deque<uint16_t> pool;
   for (uint16_t i = 0; i < kRange; ++i) pool.push_back(i);
   std::unordered_map<BitMapperKey, uint16_t, Gant::Hash<BitMapperKey>> held;
   const BitMapperKey k = key(7);
   for (auto _ : state) {
      const uint16_t i = pool.front();
      pool.pop_front();
      held.emplace(k, i);
      benchmark::DoNotOptimize(held);
      held.erase(k);
      pool.push_back(i);
   }
}
BENCHMARK(BM_AllocRelease_DequeAndMap);

void BM_AllocRelease_Allocator(benchmark::State& state) {
   Allocator a;
   const BitMapperKey k = key(7);
   for (auto _ : state) {
      a.alloc(k);
      a.release(k);
   }
   benchmark::DoNotOptimize(a.sm->bitIndexFreePools());
}
BENCHMARK(BM_AllocRelease_Allocator);

// A full table: every index of the range held.
struct FullTable : Allocator {
   FullTable() {
      for (uint32_t n = 0; n < kRange; ++n) alloc(key(n));
   }
};

void BM_Recovery_FullTable(benchmark::State& state) {
   FullTable t;
   for (auto _ : state) {
      const auto start = std::chrono::steady_clock::now();
      {
         auto status = statusFactory(Gant::Name("status"));
         Gant::Ptr<BitMapperSm> sm = bitMapperSmFactory(t.config, status, t.pond);
         benchmark::DoNotOptimize(sm->bitIndexFreePools());
         state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
      }
   }
}
BENCHMARK(BM_Recovery_FullTable)->UseManualTime()->Unit(benchmark::kMicrosecond);

// What another process pays to read the table once.
void BM_ReadPass_FullTable(benchmark::State& state) {
   FullTable t;
   Loop::EpollLoop loop;
   auto reader = pondStatusFactory(Gant::Name("bitmap"));
   reader->openReader(t.path, loop, t.options);
   loop.runUntil([&] { return reader->tableReady(); }, 5);
   for (auto _ : state) {
      uint32_t rows = 0;
      reader->bitIndexMapForEach([&](const BitIndexMap& r) { rows += r.refCount(); });
      benchmark::DoNotOptimize(rows);
   }
}
BENCHMARK(BM_ReadPass_FullTable)->Unit(benchmark::kMicrosecond);

} // namespace
