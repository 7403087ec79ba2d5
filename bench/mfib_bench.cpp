// The MFIB across processes, in one run:
// - route(K) merged over 4 producer tables, beside 4 lookups of K, one per
//   table, with nothing merged;
// - a producer's commit to the reader's report in another process (the
//   raw eventfd wake-up it compares with is BM_NotifyLatency_RawEventfd);
// - a new reader mounting and ordering 4 producers x 12000 routes, beside
//   four plain read passes over the same tables;
// - 64 VRFs x 3 producers read by 4 reader processes: mount time, memory
//   and descriptors per reader.
#include "loop/EpollLoop.h"
#include "pond/testlib/Fixture.h"
#include "shmfib/DirCleanup.h"
#include "shmfib/MfibProducer.h"
#include "shmfib/MfibReader.h"

#include <benchmark/benchmark.h>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <vector>

namespace {

using namespace Pond::Multicast::Fib;
using Pakto::AddressFamily;

const L3::VrfName vrf("default");

uint64_t nowNs() {
   return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                       std::chrono::steady_clock::now().time_since_epoch())
                       .count());
}

IpGenRouteKey key(uint32_t n) {
   return Routing::Multicast::Fib::makeRouteKeyMroute(
       Pakto::Prefix(Pakto::IpAddr::fromHost(0x0a000000 + n), 32),
       Pakto::Prefix(Pakto::IpAddr::fromHost(0xe8000000 + n % 4096), 32));
}

Route route(uint32_t n, uint8_t priority) {
   Route r(key(n));
   r.iifIs(Pakto::IntfId("Ethernet" + std::to_string(priority)));
   r.routePriorityIs(RoutePriority(priority));
   r.oifIs(OifIndex(uint16_t(n % 500)), true);
   r.maxOifIndexIs(OifIndex(uint16_t(n % 500)));
   return r;
}

// Producers in this process (their tables are the same shared memory a
// reader in another process maps), each holding `routes` routes in `vrfs`.
struct Producers {
   Pond::Options options = Pond::Test::uniqueOptions();
   Loop::EpollLoop loop;
   std::vector<std::unique_ptr<MfibProducer>> producers;
   Producers(int count, uint32_t routes, int vrfs = 1) {
      for (int p = 0; p < count; ++p) {
         producers.push_back(
             std::make_unique<MfibProducer>(AddressFamily::ipv4, "p" + std::to_string(p), loop, options));
         for (int v = 0; v < vrfs; ++v) {
            const L3::VrfName name(v == 0 ? "default" : "vrf" + std::to_string(v));
            for (uint32_t n = 0; n < routes; ++n) producers.back()->routeIs(name, route(n, uint8_t(p + 1)));
            if (routes == 0) producers.back()->table(name);
         }
      }
   }
   ~Producers() {
      for (auto& p : producers) p->withdraw();
   }
};

constexpr uint32_t kRoutes = 12000;

// ---- merged lookups ----------------------------------------------------------

struct MergedView {
   Producers producers{4, kRoutes};
   std::unique_ptr<MfibReader> reader;
   Gant::Ptr<MfibPondColl> coll;
   std::vector<IpGenRouteKey> keys;
   MergedView() {
      reader = std::make_unique<MfibReader>(AddressFamily::ipv4, producers.loop, producers.options);
      producers.loop.runUntil([&] { return reader->ordered(vrf) && reader->ordered(vrf)->routeSize() == kRoutes; }, 20);
      coll = reader->mfibPondDir()->pondColl(vrf);
      std::mt19937 rng(7);
      for (int i = 0; i < 4096; ++i) keys.push_back(key(rng() % kRoutes));
   }
};

MergedView& mergedView() {
   static MergedView v;
   return v;
}

void BM_Merge_RouteOver4Tables(benchmark::State& state) {
   MergedView& v = mergedView();
   std::size_t i = 0;
   for (auto _ : state) {
      Route r = v.coll->route(v.keys[i++ & 4095]);
      benchmark::DoNotOptimize(r);
   }
}
BENCHMARK(BM_Merge_RouteOver4Tables);

void BM_Merge_FourSingleTableLookups(benchmark::State& state) {
   MergedView& v = mergedView();
   std::vector<const Status*> tables;
   for (const auto& [k, t] : v.coll->pondPtr()) tables.push_back(t.ptr());
   std::size_t i = 0;
   for (auto _ : state) {
      const IpGenRouteKey& k = v.keys[i++ & 4095];
      for (const Status* t : tables) {
         Pond::Found<Route> f = t->route(k);
         benchmark::DoNotOptimize(f);
      }
   }
}
BENCHMARK(BM_Merge_FourSingleTableLookups);

// ---- commit to the reader in another process ---------------------------------

constexpr int kSamples = 2000;
struct Shared {
   uint64_t sentAt[kSamples];
   uint64_t latency[kSamples];
};

// Each commit adds or removes the route, so that OrderRouteSm reports it.
void BM_Mfib_CommitToOrderRouteSmReport(benchmark::State& state) {
   for (auto _ : state) {
      auto* s = static_cast<Shared*>(
          mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
      Producers producers(1, 0);
      MfibProducer& p = *producers.producers[0];
      const Route r = route(1, 1);
      p.routeIs(vrf, route(2, 1)); // the VRF's table is there from the start
      const pid_t pid = fork();
      if (pid == 0) {
         Loop::EpollLoop loop;
         MfibReader reader(AddressFamily::ipv4, loop, producers.options);
         int got = 0;
         reader.onRoute = [&](const L3::VrfName& v, const IpGenRouteKey& k) {
            if (k != r.key() || got == kSamples) return;
            // Sample i adds the route when i is even, removes it when odd.
            if (reader.ordered(v)->routeHas(k) != (got % 2 == 0)) return;
            s->latency[got] = nowNs() - s->sentAt[got];
            ++got;
         };
         loop.runUntil([&] { return got == kSamples; }, 60);
         _exit(got == kSamples ? 0 : 1);
      }
      Pond::TableWriter& writer = *p.table(vrf).tableWriter();
      for (int i = 0; i < kSamples; ++i) {
         // The reader has caught up and sleeps once it has armed its wake.
         producers.loop.runUntil([&] { return writer.armedReaders() == 1; }, 10);
         const uint64_t until = nowNs() + 20000;
         while (nowNs() < until) {
         }
         s->sentAt[i] = nowNs();
         if (i % 2 == 0) p.routeIs(vrf, r);
         else p.routeDel(vrf, r.key());
      }
      int status = 0;
      while (waitpid(pid, &status, WNOHANG) == 0) producers.loop.runOnce(0.001);
      if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) state.SkipWithError("reader failed");
      std::vector<uint64_t> v(s->latency, s->latency + kSamples);
      std::sort(v.begin(), v.end());
      state.counters["median_us"] = double(v[v.size() / 2]) / 1000.0;
      state.counters["p99_us"] = double(v[v.size() * 99 / 100]) / 1000.0;
      munmap(s, sizeof(Shared));
   }
}
BENCHMARK(BM_Mfib_CommitToOrderRouteSmReport)->Iterations(1)->Unit(benchmark::kMicrosecond);

// ---- a new reader mounting 4 x 12000 routes ----------------------------------

Producers& fourFull() {
   static Producers p(4, kRoutes);
   return p;
}

void BM_Mount_NewReader4x12000(benchmark::State& state) {
   Producers& p = fourFull();
   for (auto _ : state) {
      auto reader = std::make_unique<MfibReader>(AddressFamily::ipv4, p.loop, p.options);
      // Every table read, not only entered: the ordered collection is full
      // from the first table on, and only right once all four are weighed.
      auto mounted = [&] {
         return reader->ordered(vrf) && reader->mfibPondDir()->pondColl(vrf)->pondPtrSize() == 4 &&
                reader->settled() && reader->ordered(vrf)->routeSize() == kRoutes;
      };
      p.loop.runUntil(mounted, 20);
      state.PauseTiming(); // checking and unmounting are not mounting
      const Status* top = reader->mountingMachine().mfibPond("p3", vrf).ptr();
      const auto& ordered = reader->ordered(vrf)->route();
      if (!mounted() || !std::all_of(ordered.begin(), ordered.end(), [&](const auto& e) { return e.second == top; }))
         state.SkipWithError("not mounted");
      reader.reset();
      state.ResumeTiming();
   }
}
BENCHMARK(BM_Mount_NewReader4x12000)->Unit(benchmark::kMillisecond);

void BM_Mount_FourBareTables(benchmark::State& state) {
   Producers& p = fourFull();
   for (auto _ : state) {
      std::vector<Gant::Ptr<Status>> tables;
      for (int i = 0; i < 4; ++i) {
         tables.push_back(statusFactory(Gant::Name("p" + std::to_string(i))));
         tables.back()->openReader(Status::mountPath(AddressFamily::ipv4, vrf, "p" + std::to_string(i)), p.loop, p.options);
      }
      p.loop.runUntil([&] { return std::all_of(tables.begin(), tables.end(), [](auto& t) { return t->tableReady(); }); }, 10);
      state.PauseTiming();
      tables.clear();
      state.ResumeTiming();
   }
}
BENCHMARK(BM_Mount_FourBareTables)->Unit(benchmark::kMillisecond);

void BM_Mount_FourPlainReadPasses(benchmark::State& state) {
   Producers& p = fourFull();
   std::vector<Gant::Ptr<Status>> tables;
   for (int i = 0; i < 4; ++i) {
      tables.push_back(statusFactory(Gant::Name("p" + std::to_string(i))));
      tables.back()->openReader(Status::mountPath(AddressFamily::ipv4, vrf, "p" + std::to_string(i)), p.loop, p.options);
   }
   p.loop.runUntil([&] { return std::all_of(tables.begin(), tables.end(), [](auto& t) { return t->tableReady(); }); }, 10);
   for (auto _ : state) {
      uint32_t n = 0;
      for (auto& t : tables) t->routeForEach([&](const Route& r) { n += r.routePriority().value(); });
      benchmark::DoNotOptimize(n);
   }
}
BENCHMARK(BM_Mount_FourPlainReadPasses)->Unit(benchmark::kMillisecond);

// ---- scale: 64 VRFs x 3 producers, 4 readers ---------------------------------

long statusKb(const char* field) {
   std::ifstream f("/proc/self/status");
   for (std::string line; std::getline(f, line);)
      if (line.starts_with(field)) return std::atol(line.c_str() + std::strlen(field));
   return -1;
}

void BM_Scale_64Vrfs3Producers4Readers(benchmark::State& state) {
   constexpr int kVrfs = 64, kProducers = 3, kReaders = 4, kPerVrf = 100;
   for (auto _ : state) {
      Producers producers(kProducers, kPerVrf, kVrfs);
      struct Figures {
         double mountMs;
         long rssKb, privateKb, fds;
      };
      auto* figures = static_cast<Figures*>(
          mmap(nullptr, sizeof(Figures) * kReaders, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
      std::vector<pid_t> pids;
      for (int r = 0; r < kReaders; ++r) {
         const pid_t pid = fork();
         if (pid == 0) {
            Loop::EpollLoop loop;
            const long rssBefore = statusKb("VmRSS:"), privateBefore = statusKb("RssAnon:");
            const auto fdsBefore = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
            const uint64_t start = nowNs();
            MfibReader reader(AddressFamily::ipv4, loop, producers.options);
            auto mounted = [&] {
               if (reader.mfibPondDir()->pondCollSize() != kVrfs) return false;
               for (const auto& [name, coll] : reader.mfibPondDir()->pondColl())
                  if (coll->pondPtrSize() != kProducers || !reader.ordered(name) ||
                      reader.ordered(name)->routeSize() != kPerVrf)
                     return false;
               return true;
            };
            loop.runUntil(mounted, 60);
            figures[r].mountMs = double(nowNs() - start) / 1e6;
            figures[r].rssKb = statusKb("VmRSS:") - rssBefore;
            figures[r].privateKb = statusKb("RssAnon:") - privateBefore;
            figures[r].fds = long(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}) - fdsBefore);
            _exit(mounted() ? 0 : 1);
         }
         pids.push_back(pid);
      }
      bool ok = true;
      for (pid_t pid : pids) {
         int status = 0;
         while (waitpid(pid, &status, WNOHANG) == 0) producers.loop.runOnce(0.001);
         ok = ok && WIFEXITED(status) && WEXITSTATUS(status) == 0;
      }
      if (!ok) state.SkipWithError("a reader failed");
      double mount = 0;
      long rss = 0, priv = 0, fds = 0;
      for (int r = 0; r < kReaders; ++r) {
         mount = std::max(mount, figures[r].mountMs);
         rss = std::max(rss, figures[r].rssKb);
         priv = std::max(priv, figures[r].privateKb);
         fds = std::max(fds, figures[r].fds);
      }
      state.counters["mount_ms_max"] = mount;
      state.counters["reader_rss_kb_max"] = double(rss);
      state.counters["reader_private_kb_max"] = double(priv);
      state.counters["reader_fds_max"] = double(fds);
      munmap(figures, sizeof(Figures) * kReaders);
   }
}
BENCHMARK(BM_Scale_64Vrfs3Producers4Readers)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace
