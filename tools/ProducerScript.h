#pragma once
// The text a producer is fed by hand (mcastfib produce) or by the demo, one
// change per line, applied to the producer's tables at commit:
//
//    add KEY iif INTF [oif INTF...] [vrf NAME] [flags WORD,...]
//    del KEY [vrf NAME]
//    commit
//
// KEY is a route key as the library prints it ((10.0.0.1,239.1.1.1),
// (*,ff3e::1), vlan10 Floodset...); its family picks the producer's tables
// of that family. Flags are the route flags by name (valid, toCpu...);
// valid when none are given.
#include "shmfib/MfibProducer.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tool {

class ProducerScript {
 public:
   ProducerScript(const std::string& app, uint8_t priority, const L3::VrfName& vrf, Loop::EventLoop& loop,
                  const Pond::Options& options);
   ~ProducerScript();

   // Takes one line; returns what is wrong with it, or "" when taken.
   std::string line(std::string_view text);
   // Applies the changes taken since the last commit; returns their number.
   std::size_t commit();
   std::size_t pending() const noexcept { return pending_.size(); }
   // A clean exit: readers let go of this producer's routes.
   void withdraw();

 private:
   struct Change {
      L3::VrfName vrf;
      Pond::Multicast::Fib::IpGenRouteKey key;
      bool add = false;
      Pakto::IntfId iif;
      std::vector<Pakto::IntfId> oifs;
      Pond::Multicast::Fib::Route::RouteFlags flags;
   };
   Pond::Multicast::Fib::MfibProducer& producer(Pakto::AddressFamily af);

   std::string app_;
   uint8_t priority_;
   L3::VrfName vrf_;
   Loop::EventLoop& loop_;
   Pond::Options options_;
   std::unique_ptr<Pond::Multicast::Fib::MfibProducer> producers_[2];
   std::vector<Change> pending_;
};

} // namespace Tool
