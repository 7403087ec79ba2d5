// Random routes, members, fastdrops, boundary routes and VLAN filters on a
// collection, each step checked against a plain recomputation.
#include "mroutelib/Mroute.h"
#include "mroutelib/testlib/Sets.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace {

using namespace MrouteLib;
using MrouteLib::Test::eth;
using Routing::Multicast::Fib::RouteKeyType;

struct Model {
   explicit Model(uint32_t seed) : rng_(seed) {
      for (const char* vrf : {"default", "red"}) tables_.push_back(coll_->vrfMrouteTableIs(L3::VrfName(vrf)));
   }

   void step() {
      MrouteTable& table = *tables_[pick(2)];
      const auto key = Routing::Multicast::Fib::makeRouteKeyVlanFloodset(Bridging::VlanId(1 + pick(30)));
      const Bridging::VlanId vlan(1 + pick(5));
      auto route = table.mroute(key);
      auto boundary = table.boundaryMroute(key);
      const uint32_t op = pick(12);
      if (op == 0) table.mrouteIs(key);
      if (op == 1 && route) filterIs(table, *route, 0), table.mrouteDel(key);
      if (op == 2 && route) route->oifSetIs(randomSet());
      if (op == 3 && route) pick(2) ? route->frrOifSetIs(randomSet()) : route->notifyOifSetIs(randomSet());
      if ((op == 4 || op == 5) && route) route->fastdropIs(vlan, randomSet());
      if (op == 6 && route) pick(3) ? route->fastdropDel(vlan) : route->doClearFastdrop();
      if (op == 7 && route) filterIs(table, *route, static_cast<uint32_t>(rng_()) & 0x8000000f);
      if (op == 8) table.boundaryMrouteIs(key);
      if (op == 9 && boundary) boundary->fastdropIs(vlan, randomSet());
      if (op == 10 && boundary) pick(2) ? boundary->fastdropDel(vlan) : boundary->doClearFastdrop();
      if (op == 11 && boundary) {
         // A deleted boundary route's share stays counted unless it was cleared.
         if (pick(2)) boundary->doClearFastdrop();
         leaked_[&table] += boundary->fastdropCount();
         table.boundaryMrouteDel(key);
      }
   }

   void check() {
      std::map<const OifSet*, uint32_t> holders;
      for (const auto& table : tables_) {
         uint32_t fastdrops = 0, boundaryFastdrops = leaked_[table.ptr()], filter = 0, bits[32] = {};
         auto count = [&](const auto& route, uint32_t& sum) {
            EXPECT_EQ(route->fastdropCount(), route->fastdropSize());
            sum += route->fastdropCount();
            for (const auto& [vlan, s] : route->fastdrop()) ++holders[s.ptr()];
         };
         for (const auto& [key, route] : table->mroute()) {
            count(route, fastdrops);
            filter |= route->vlanFilter();
            for (unsigned b = 0; b < 32; ++b) bits[b] += route->vlanFilter() >> b & 1;
            for (const auto* s : {&route->oifSet(), &route->frrOifSet(), &route->notifyOifSet()})
               if (*s) ++holders[s->ptr()];
         }
         for (const auto& [key, boundary] : table->boundaryMroute()) count(boundary, boundaryFastdrops);
         EXPECT_EQ(table->fastdropCount(), static_cast<uint16_t>(fastdrops));
         EXPECT_EQ(table->boundaryFastdropCount(), static_cast<uint16_t>(boundaryFastdrops));
         EXPECT_EQ(table->vlanFilter(), filter);
         for (uint8_t b = 0; b < 32; ++b) EXPECT_EQ(table->vlanFilterCounter(b), bits[b]) << unsigned{b};
      }
      // Each held set is the one registered for its value (so no value is
      // registered twice) and held by exactly those routes: the registry holds
      // no reference and has no other entry.
      EXPECT_EQ(coll_->oifSetSize(), holders.size());
      for (const auto& [set, n] : holders) {
         EXPECT_EQ(coll_->oifSet(set->portVlanSet()).ptr(), set);
         EXPECT_EQ(set->refCount(), n);
      }
      mostRegistered = std::max(mostRegistered, coll_->oifSetSize());
   }

   void deleteEverything() {
      for (const auto& table : tables_) table->mrouteDelAll(), table->boundaryMrouteDelAll();
      for (const auto& table : tables_) EXPECT_EQ(table->fastdropCount(), 0u);
      EXPECT_EQ(coll_->oifSetSize(), 0u);
   }

   uint32_t pick(uint32_t n) { return static_cast<uint32_t>(rng_() % n); }

   // A small space of values, so that routes meet on sets, sets collide on
   // their hash (feature flag, type) and some are null.
   Gant::Ptr<OifSet> randomSet() {
      if (pick(6) == 0) return nullptr;
      PortVlanSet s;
      for (unsigned i = pick(4); i > 0; --i) s.portVlanIs(PortVlan(eth(1 + pick(4)), 10 + pick(2), 0), true);
      s.featureFlagIs(pick(2)), s.ignoreTypeIs(pick(3) == 0);
      s.typeIs(pick(2) ? RouteKeyType::mroute : RouteKeyType::vlanFloodset);
      return oifSetFindOrMake(coll_.ptr(), s);
   }

   // The agent's duty: report each filter change to the table.
   static void filterIs(MrouteTable& table, Mroute& route, uint32_t filter) {
      table.doUpdateVrfVlanFilter(filter, route.vlanFilter() ^ filter);
      route.vlanFilterIs(filter);
   }

   std::size_t mostRegistered = 0;
   std::mt19937 rng_;
   Gant::Ptr<MrouteTableColl> coll_ = mrouteTableCollFactory("c");
   std::vector<Gant::Ptr<MrouteTable>> tables_;
   std::map<const MrouteTable*, uint32_t> leaked_;
};

TEST(MrouteModel, RandomOperationsKeepSumsAndRegistryExact) {
   for (uint32_t seed : {1u, 2u, 3u}) {
      SCOPED_TRACE("seed " + std::to_string(seed));
      Model model(seed);
      for (int i = 0; i < 3000 && !HasFailure(); ++i) model.step(), model.check();
      EXPECT_GT(model.mostRegistered, 10u) << "the walk reached many sets at once";
      model.deleteEverything();
   }
}

} // namespace
