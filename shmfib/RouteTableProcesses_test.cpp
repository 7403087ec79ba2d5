// The MFIB's route table across real processes: a producer rewriting 12000
// routes at full speed while four agent processes follow it through their
// own reader entities, each checking every route it reads is whole.
#include "loop/EpollLoop.h"
#include "pond/testlib/Fixture.h"
#include "shmfib/RouteTable.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <map>

namespace {

using namespace Pond::Multicast::Fib;
using Routing::Multicast::Fib::IpGenRouteKey;

constexpr uint32_t kRoutes = 12000;

IpGenRouteKey routeKey(uint32_t i) {
   return Routing::Multicast::Fib::makeRouteKeyMroute(Pakto::Prefix(Pakto::IpAddr::fromHost(0x0a000000u + i), 32),
                                                      Pakto::Prefix(Pakto::IpAddr::fromHost(0xef010101u), 32));
}

// Every word of the outgoing set follows from the key and the version, so a
// route copied half old and half new shows.
Route route(uint32_t i, uint32_t version) {
   Route r(routeKey(i));
   r.versionIs(version);
   r.maxOifIndexIs(511);
   for (unsigned w = 0; w < 8; ++w) r.oifBitmapIs(w, (uint64_t(i) << 32 | version) * (w + 1));
   return r;
}

bool whole(const Route& r) {
   const uint32_t i = r.key().s().v4Prefix().address().hostValue() - 0x0a000000u;
   for (unsigned w = 0; w < 8; ++w)
      if (r.oifBitmap(w) != (uint64_t(i) << 32 | r.version()) * (w + 1)) return false;
   return true;
}

[[noreturn]] void agent(const std::string& path, const Pond::Options& options, uint32_t finalVersion) {
   Loop::EpollLoop loop;
   auto table = statusFactory("producer");
   struct Check : Status::Reactor {
      using Status::Reactor::Reactor;
      std::map<uint32_t, uint32_t> versions;
      bool torn = false;
      void onRoute(const IpGenRouteKey& k) override {
         auto r = notifier()->route(k);
         uint32_t i = k.s().v4Prefix().address().hostValue() - 0x0a000000u;
         if (r) {
            if (!whole(*r)) torn = true;
            versions[i] = r->version();
         }
      }
   } check(table.ptr());
   table->openReader(path, loop, options);
   auto caughtUp = [&] {
      if (check.versions.size() != kRoutes) return false;
      for (const auto& [i, v] : check.versions)
         if (v != finalVersion) return false;
      return true;
   };
   loop.runUntil([&] { return check.torn || caughtUp(); }, 60);
   ::_exit(check.torn ? 3 : caughtUp() ? 0 : 2);
}

TEST(ShmRouteTableProcesses, FourAgentsFollowAProducerAtFullSpeed) {
   Pond::Options options = Pond::Test::uniqueOptions();
   const auto path = Status::mountPath(Pakto::AddressFamily::ipv4, L3::VrfName("default"), "producer");
   Loop::EpollLoop loop;
   auto table = statusFactory("producer");
   table->openWriter(path, &loop, options);
   const uint32_t rounds = 8;
   std::vector<pid_t> agents;
   for (int a = 0; a < 4; ++a) {
      pid_t pid = ::fork();
      if (pid == 0) agent(path, options, rounds);
      agents.push_back(pid);
   }
   for (uint32_t v = 1; v <= rounds; ++v)
      for (uint32_t i = 0; i < kRoutes; ++i) {
         table->routeIs(route(i, v));
         if (i % 512 == 0) loop.runOnce(0);
      }
   std::vector<int> codes;
   for (pid_t pid : agents) {
      int status = 0;
      while (::waitpid(pid, &status, WNOHANG) == 0) loop.runOnce(0.005);
      codes.push_back(WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status));
   }
   EXPECT_EQ(codes, (std::vector<int>{0, 0, 0, 0})) << "2: a change never reached the agent, 3: a torn route";
   table->tableWriter()->unlink();
}

} // namespace
