// The mroute library's hot paths beside their plain counterparts, in one run:
// finding an OifSet by value as the member count grows, equality of large
// unequal sets decided by the cached hash against comparing the members,
// and the dirty test over a table of 12000 routes against a plain loop over
// the same flags.
#include "mroutelib/Mroute.h"
#include "mroutelib/testlib/Sets.h"

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

namespace {

using namespace MrouteLib;
using MrouteLib::Test::setOfSize;

// A registry holding the set of N members among 256 others.
void BM_OifSetFindOrMake(benchmark::State& state) {
   auto coll = mrouteTableCollFactory("c");
   std::vector<Gant::Ptr<OifSet>> others;
   for (unsigned i = 0; i < 256; ++i) others.push_back(oifSetFindOrMake(coll.ptr(), setOfSize(2, 100 + i)));
   PortVlanSet set = setOfSize(static_cast<unsigned>(state.range(0)));
   set.saveHash();
   const auto held = oifSetFindOrMake(coll.ptr(), set);
   for (auto _ : state) {
      auto found = oifSetFindOrMake(coll.ptr(), set);
      benchmark::DoNotOptimize(found.ptr());
   }
}
BENCHMARK(BM_OifSetFindOrMake)->Arg(1)->Arg(64)->Arg(1024);

// The same lookup for a value not registered (another hash): no member is
// compared, so this is the cost the cached hash leaves.
void BM_OifSetLookupMiss(benchmark::State& state) {
   auto coll = mrouteTableCollFactory("c");
   std::vector<Gant::Ptr<OifSet>> others;
   for (unsigned i = 0; i < 256; ++i) others.push_back(oifSetFindOrMake(coll.ptr(), setOfSize(2, 100 + i)));
   PortVlanSet set = setOfSize(static_cast<unsigned>(state.range(0)), 7);
   set.saveHash();
   for (auto _ : state) benchmark::DoNotOptimize(coll->oifSetHas(set));
}
BENCHMARK(BM_OifSetLookupMiss)->Arg(1)->Arg(64)->Arg(1024);

// Two sets of 1024 members that differ in the last one.
std::pair<PortVlanSet, PortVlanSet> unequalSets() {
   PortVlanSet a = setOfSize(1024), b = setOfSize(1024);
   b.portVlanDel(PortVlan(Test::eth(1024), 10, 0));
   b.portVlanIs(PortVlan(Test::eth(1024), 11, 0), true);
   a.saveHash();
   b.saveHash();
   return {a, b};
}

void BM_UnequalSetsByCachedHash(benchmark::State& state) {
   const auto [a, b] = unequalSets();
   for (auto _ : state) benchmark::DoNotOptimize(a == b);
}
BENCHMARK(BM_UnequalSetsByCachedHash);

void BM_UnequalSetsByMemberVectors(benchmark::State& state) {
   const auto [a, b] = unequalSets();
   std::vector<PortVlan> va, vb;
   for (const auto& [pv, on] : a.portVlan()) va.push_back(pv);
   for (const auto& [pv, on] : b.portVlan()) vb.push_back(pv);
   for (auto _ : state) benchmark::DoNotOptimize(va == vb);
}
BENCHMARK(BM_UnequalSetsByMemberVectors);

// 12000 routes with random filter bits; the record's masks meet few of them.
constexpr unsigned kRoutes = 12000;

struct Flags {
   bool dirty;
   uint32_t vlanFilter, vlanPortFilter;
   uint64_t vlanGroupFilter;
   uint32_t lagFilter;
};

Flags randomFlags(std::mt19937& rng) {
   return {rng() % 64 == 0, 1u << (rng() % 32), 1u << (rng() % 32), uint64_t{1} << (rng() % 64), 1u << (rng() % 32)};
}

Gant::Ptr<DirtyInfo> masks() {
   auto info = dirtyInfoFactory();
   info->dirtyVlanIs(1);
   info->dirtyVlanPortIs(2);
   info->dirtyVlanGroupIs(4);
   info->dirtyLagIs(8);
   return info;
}

void BM_MrouteDirtyPass(benchmark::State& state) {
   auto coll = mrouteTableCollFactory("c");
   auto table = coll->vrfMrouteTableIs(L3::VrfName("default"));
   std::mt19937 rng(7);
   for (unsigned i = 0; i < kRoutes; ++i) {
      Pakto::IpGenPrefix s(Pakto::IpGenAddr(Pakto::IpAddr::fromHost(0x0a000000u + i)), 32);
      Pakto::IpGenPrefix g(Pakto::IpGenAddr(Pakto::IpAddr::fromHost(0xef010101u)), 32);
      auto r = table->mrouteIs(Routing::Multicast::Fib::IpGenRouteKey(s, g));
      const Flags f = randomFlags(rng);
      r->dirtyIs(f.dirty);
      r->vlanFilterIs(f.vlanFilter);
      r->vlanPortFilterIs(f.vlanPortFilter);
      r->vlanGroupFilterIs(f.vlanGroupFilter);
      r->lagFilterIs(f.lagFilter);
   }
   const auto info = masks();
   for (auto _ : state) {
      unsigned n = 0;
      for (const auto& [key, route] : table->mroute()) n += info->mrouteDirty(route);
      benchmark::DoNotOptimize(n);
   }
   state.SetItemsProcessed(state.iterations() * kRoutes);
}
BENCHMARK(BM_MrouteDirtyPass);

void BM_PlainFlagLoop(benchmark::State& state) {
   std::mt19937 rng(7);
   std::vector<Flags> flags;
   for (unsigned i = 0; i < kRoutes; ++i) flags.push_back(randomFlags(rng));
   const auto info = masks();
   const uint32_t v = info->dirtyVlan(), vp = info->dirtyVlanPort(), lag = info->dirtyLag();
   const uint64_t vg = info->dirtyVlanGroup();
   for (auto _ : state) {
      unsigned n = 0;
      for (const Flags& f : flags)
         n += f.dirty || (f.vlanFilter & v) || (f.vlanPortFilter & vp) || (f.vlanGroupFilter & vg) || (f.lagFilter & lag);
      benchmark::DoNotOptimize(n);
   }
   state.SetItemsProcessed(state.iterations() * kRoutes);
}
BENCHMARK(BM_PlainFlagLoop);

} // namespace
