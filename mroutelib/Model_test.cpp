// Random routes, members, fastdrops, boundary routes and VLAN filters on a
// collection, each step checked against a plain recomputation: the sums
// kept by delta against sums by a walk, the registry against the sets the
// routes hold, and nothing left once every route is gone.
#include "mroutelib/Mroute.h"
#include "mroutelib/testlib/Sets.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

namespace {

using namespace MrouteLib;
using MrouteLib::Test::eth;
using Routing::Multicast::Fib::IpGenRouteKey;
using Routing::Multicast::Fib::makeRouteKeyVlanFloodset;
using Routing::Multicast::Fib::RouteKeyType;

class Model {
 public:
   explicit Model(uint32_t seed) : rng_(seed) {
      for (const char* vrf : {"default", "red"}) tables_.push_back(coll_->vrfMrouteTableIs(L3::VrfName(vrf)));
   }

   void step() {
      const auto& table = tables_[pick(tables_.size())];
      const IpGenRouteKey key = makeRouteKeyVlanFloodset(Bridging::VlanId(1 + pick(30)));
      const Bridging::VlanId vlan(1 + pick(5));
      auto route = table->mroute(key);
      auto boundary = table->boundaryMroute(key);
      switch (pick(12)) {
      case 0: table->mrouteIs(key); break;
      case 1:
         if (route) filterIs(*table, *route, 0);
         table->mrouteDel(key);
         break;
      case 2:
         if (route) route->oifSetIs(randomSet());
         break;
      case 3:
         if (route) (pick(2) ? route->frrOifSetIs(randomSet()) : route->notifyOifSetIs(randomSet()));
         break;
      case 4:
      case 5:
         if (route) route->fastdropIs(vlan, randomSet());
         break;
      case 6:
         if (route) (pick(3) ? route->fastdropDel(vlan) : route->doClearFastdrop());
         break;
      case 7:
         if (route) filterIs(*table, *route, static_cast<uint32_t>(rng_()) & 0x8000000f);
         break;
      case 8: table->boundaryMrouteIs(key); break;
      case 9:
         if (boundary) boundary->fastdropIs(vlan, randomSet());
         break;
      case 10:
         if (boundary) (pick(2) ? boundary->fastdropDel(vlan) : boundary->doClearFastdrop());
         break;
      case 11:
         // A deleted boundary route's share stays counted unless it was cleared.
         if (boundary) {
            if (pick(2)) boundary->doClearFastdrop();
            leaked_[table.ptr()] += boundary->fastdropCount();
            table->boundaryMrouteDel(key);
         }
         break;
      }
   }

   void check() const {
      std::map<const OifSet*, uint32_t> holders;
      auto hold = [&](const Gant::Ptr<OifSet>& s) {
         if (s) ++holders[s.ptr()];
      };
      for (const auto& table : tables_) {
         uint32_t fastdrops = 0, boundaryFastdrops = leaked_.count(table.ptr()) ? leaked_.at(table.ptr()) : 0;
         uint32_t filter = 0;
         std::map<unsigned, uint32_t> bits;
         for (const auto& [key, route] : table->mroute()) {
            EXPECT_EQ(route->fastdropCount(), route->fastdropSize());
            fastdrops += route->fastdropCount();
            filter |= route->vlanFilter();
            for (unsigned b = 0; b < 32; ++b) bits[b] += route->vlanFilter() >> b & 1;
            for (const auto* s : {&route->oifSet(), &route->frrOifSet(), &route->notifyOifSet()}) hold(*s);
            for (const auto& [vlan, s] : route->fastdrop()) {
               EXPECT_TRUE(s);
               hold(s);
            }
         }
         for (const auto& [key, boundary] : table->boundaryMroute()) {
            EXPECT_EQ(boundary->fastdropCount(), boundary->fastdropSize());
            boundaryFastdrops += boundary->fastdropCount();
            for (const auto& [vlan, s] : boundary->fastdrop()) hold(s);
         }
         EXPECT_EQ(table->fastdropCount(), static_cast<uint16_t>(fastdrops));
         EXPECT_EQ(table->boundaryFastdropCount(), static_cast<uint16_t>(boundaryFastdrops));
         EXPECT_EQ(table->vlanFilter(), filter);
         for (unsigned b = 0; b < 32; ++b) EXPECT_EQ(table->vlanFilterCounter(static_cast<uint8_t>(b)), bits[b]) << b;
      }
      // Each held set is the registered one for its value, held by exactly
      // those routes (the registry holds no reference), and no value twice.
      EXPECT_EQ(coll_->oifSetSize(), holders.size());
      for (const auto& [set, n] : holders) {
         EXPECT_EQ(coll_->oifSet(set->portVlanSet()).ptr(), set);
         EXPECT_EQ(set->refCount(), n);
         for (const auto& [other, m] : holders)
            if (other != set) {
               EXPECT_FALSE(other->portVlanSet() == set->portVlanSet());
            }
      }
      for (const auto& [value, ptr] : coll_->oifSet()) EXPECT_TRUE(ptr.ptr()->doCmpPortVlanSet(value));
   }

   void deleteEverything() {
      for (const auto& table : tables_) {
         table->mrouteDelAll();
         table->boundaryMrouteDelAll();
      }
      for (const auto& table : tables_) EXPECT_EQ(table->fastdropCount(), 0u);
      EXPECT_EQ(coll_->oifSetSize(), 0u);
   }

   std::size_t registered() const { return coll_->oifSetSize(); }

 private:
   uint32_t pick(std::size_t n) { return static_cast<uint32_t>(rng_() % n); }

   // A small space of values, so that routes meet on sets, sets collide on
   // their hash (feature flag, type) and some are null.
   Gant::Ptr<OifSet> randomSet() {
      if (pick(6) == 0) return nullptr;
      PortVlanSet s;
      for (unsigned i = pick(4); i > 0; --i) s.portVlanIs(PortVlan(eth(1 + pick(4)), 10 + pick(2), 0), true);
      s.featureFlagIs(pick(2));
      s.typeIs(pick(2) ? RouteKeyType::mroute : RouteKeyType::vlanFloodset);
      s.ignoreTypeIs(pick(3) == 0);
      return oifSetFindOrMake(coll_.ptr(), s);
   }

   // The agent's duty: report each filter change to the table.
   static void filterIs(MrouteTable& table, Mroute& route, uint32_t filter) {
      table.doUpdateVrfVlanFilter(filter, route.vlanFilter() ^ filter);
      route.vlanFilterIs(filter);
   }

   std::mt19937 rng_;
   Gant::Ptr<MrouteTableColl> coll_ = mrouteTableCollFactory("c");
   std::vector<Gant::Ptr<MrouteTable>> tables_;
   std::map<const MrouteTable*, uint32_t> leaked_;
};

TEST(MrouteModel, RandomOperationsKeepSumsAndRegistryExact) {
   for (uint32_t seed : {1u, 2u, 3u}) {
      SCOPED_TRACE("seed " + std::to_string(seed));
      Model model(seed);
      std::size_t mostRegistered = 0;
      for (int i = 0; i < 3000 && !HasFailure(); ++i) {
         model.step();
         model.check();
         mostRegistered = std::max(mostRegistered, model.registered());
      }
      EXPECT_GT(mostRegistered, 10u) << "the walk reached many sets at once";
      model.deleteEverything();
   }
}

} // namespace
