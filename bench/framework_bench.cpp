// What the framework's hot paths cost, each beside a baseline in one run:
// a disabled trace against an empty loop body, and a notifying setter against
// a plain store and a virtual call.
#include "flashlog/Flashlog.h"
#include "gant/testlib/Sample.h"

#include <benchmark/benchmark.h>

namespace {

using Gant::Sample::Root;

Flashlog::Handle& trace = Flashlog::handle("Bench");

// An argument that would be costly to format; a disabled trace must not touch it.
std::string expensive(int i) { return std::string(64, static_cast<char>('a' + i % 26)); }

void BM_Baseline_EmptyLoop(benchmark::State& state) {
   int i = 0;
   for (auto _ : state) benchmark::DoNotOptimize(++i);
}
BENCHMARK(BM_Baseline_EmptyLoop);

void BM_Trace_Disabled(benchmark::State& state) {
   trace.setLevel(Flashlog::off);
   int i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(++i);
      FLASHLOG(trace, 9, "route ", expensive(i), " oif ", i);
   }
}
BENCHMARK(BM_Trace_Disabled);

void BM_Trace_DisabledLevel(benchmark::State& state) {
   trace.setLevel(5); // enabled handle, but not at this level
   int i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(++i);
      FLASHLOG(trace, 9, "route ", expensive(i), " oif ", i);
   }
   trace.setLevel(Flashlog::off);
}
BENCHMARK(BM_Trace_DisabledLevel);

void BM_Trace_EnabledToRing(benchmark::State& state) {
   trace.setLevel(9);
   int i = 0;
   for (auto _ : state) FLASHLOG(trace, 9, "route ", ++i, " oif ", 7);
   trace.setLevel(Flashlog::off);
}
BENCHMARK(BM_Trace_EnabledToRing);

struct Plain {
   uint32_t v = 0;
};

void BM_Baseline_PlainStore(benchmark::State& state) {
   Plain p;
   uint32_t i = 0;
   for (auto _ : state) {
      p.v = ++i;
      benchmark::DoNotOptimize(p);
   }
}
BENCHMARK(BM_Baseline_PlainStore);

struct Virt {
   virtual ~Virt() = default;
   virtual void on() {}
};
struct VirtImpl : Virt {
   int n = 0;
   [[gnu::noinline]] void on() override { ++n; }
};

void BM_Baseline_StoreAndVirtualCall(benchmark::State& state) {
   Plain p;
   VirtImpl impl;
   Virt* v = &impl;
   benchmark::DoNotOptimize(v);
   uint32_t i = 0;
   for (auto _ : state) {
      p.v = ++i;
      v->on();
      benchmark::DoNotOptimize(p);
   }
}
BENCHMARK(BM_Baseline_StoreAndVirtualCall);

void BM_Setter_EqualValue(benchmark::State& state) {
   auto root = Gant::Sample::rootFactory("bench");
   for (auto _ : state) {
      root->limitIs(1024);
      benchmark::DoNotOptimize(root.ptr());
   }
}
BENCHMARK(BM_Setter_EqualValue);

void BM_Setter_NoReactor(benchmark::State& state) {
   auto root = Gant::Sample::rootFactory("bench");
   uint32_t i = 0;
   for (auto _ : state) root->limitIs(++i % 4000);
}
BENCHMARK(BM_Setter_NoReactor);

struct CountingReactor : Root::Reactor {
   using Root::Reactor::Reactor;
   int n = 0;
   void onLimit() override { ++n; }
};

void BM_Setter_OneReactor(benchmark::State& state) {
   auto root = Gant::Sample::rootFactory("bench");
   CountingReactor r(root.ptr());
   uint32_t i = 0;
   for (auto _ : state) root->limitIs(++i % 4000);
   benchmark::DoNotOptimize(r.n);
}
BENCHMARK(BM_Setter_OneReactor);

void BM_Setter_FourReactors(benchmark::State& state) {
   auto root = Gant::Sample::rootFactory("bench");
   CountingReactor a(root.ptr()), b(root.ptr()), c(root.ptr()), d(root.ptr());
   uint32_t i = 0;
   for (auto _ : state) root->limitIs(++i % 4000);
   benchmark::DoNotOptimize(a.n);
}
BENCHMARK(BM_Setter_FourReactors);

} // namespace
