#pragma once
// Shared pieces of the MFIB tests: routes by number, and producers' route
// tables of one VRF, written here and merged in one collection.
#include "pond/testlib/Fixture.h"
#include "shmfib/MfibPondColl.h"

namespace Pond::Multicast::Fib::Test {

// (10.0.0.n, 239.1.1.1).
inline IpGenRouteKey sg(uint32_t n) {
   return Routing::Multicast::Fib::makeRouteKeyMroute(Pakto::Prefix(Pakto::IpAddr::fromHost(0x0a000000 + n), 32),
                                                      Gant::fromText<Pakto::Prefix>("239.1.1.1/32"));
}

inline Route routeOf(uint32_t n, uint8_t priority, uint32_t version = 0) {
   Route r(sg(n));
   r.iifIs(Pakto::IntfId("Ethernet1"));
   r.routePriorityIs(priority);
   r.versionIs(version);
   return r;
}

// Table i is producer "p<i>" of VRF red, made on first use, removed at the
// end; enter() adds it to the VRF's merged collection.
struct Tables : ::testing::Test {
   Pond::Options options = Pond::Test::uniqueOptions();
   std::vector<Gant::Ptr<Status>> tables;
   Gant::Ptr<MfibPondColl> coll = mfibPondCollFactory(L3::VrfName("red"));

   Status* table(std::size_t i) {
      while (tables.size() <= i) {
         const std::string name = "p" + std::to_string(tables.size());
         tables.push_back(statusFactory(Gant::Name(name)));
         tables.back()->openWriter("routing/multicast/routestatus/red/" + name, nullptr, options);
      }
      return tables[i].ptr();
   }
   void enter(Status* t) { coll->pondPtrIs(t, Gant::PtrConst<Status>(t)); }
   void TearDown() override {
      for (auto& t : tables) t->tableWriter()->unlink();
   }
};

} // namespace Pond::Multicast::Fib::Test
