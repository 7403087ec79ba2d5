// Producers and readers in processes of their own, started, restarted,
// killed, withdrawn and removed in random order. After each round every
// reader's merged view and ordered index must equal the merge computed here
// from what each producer last wrote. MCASTFIB_STRESS_SECONDS=N runs rounds
// for N seconds instead of 24. And a producer whose table is damaged: it is
// reported, and the other producers' routes are still merged.
#include "flashlog/Capture.h"
#include "shmfib/DirCleanup.h"
#include "shmfib/MfibProducer.h"
#include "shmfib/MfibReader.h"
#include "shmfib/testlib/Tables.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <chrono>
#include <cstdio>
#include <map>
#include <random>
#include <tuple>

namespace {

using namespace Pond::Multicast::Fib;
using Pakto::AddressFamily;

constexpr int kApps = 3, kKeys = 10, kReaders = 2;
const char* const apps[kApps] = {"low", "mid", "high"}; // priorities 1, 2, 3
const L3::VrfName vrfs[] = {L3::VrfName("default"), L3::VrfName("red")};

constexpr auto key = Test::sg;

// What a producer writes: per VRF and key, the number of its iif.
using Content = std::map<std::pair<int, uint32_t>, int>;

std::string line(const L3::VrfName& vrf, const IpGenRouteKey& k, const Route& r) {
   return vrf.str() + " " + k.pretty() + " " + r.iif().name() + "\n";
}

// A reader's merged view, then its ordered index, as sorted lines.
std::string dump(const MfibReader& reader) {
   std::vector<std::string> merged, ordered;
   for (const auto& [vrf, coll] : reader.mfibPondDir()->pondColl()) {
      for (MfibPondCollRouteIteratorConst it(coll); it; ++it) merged.push_back(line(vrf, it.key(), it.route()));
      if (auto o = reader.ordered(vrf))
         for (const auto& [k, table] : o->route()) {
            Route r;
            ordered.push_back(MfibPondColl::holds(*table, k, r) ? line(vrf, k, r) : "absent\n");
         }
   }
   std::sort(merged.begin(), merged.end());
   std::string out = "merged\n";
   for (const auto& l : merged) out += l;
   out += "ordered\n";
   for (const auto& l : ordered) out += l;
   return out;
}

struct MfibProcesses : ::testing::Test {
   Pond::Options options = Pond::Test::uniqueOptions();
   std::vector<int> parentEnds; // closed in every child: a pipe's end is its owner's alone

   // A child process with a pipe each way: `to` it, `from` it.
   struct Child {
      pid_t pid = -1;
      int to = -1, from = -1;
   };
   struct Producer : Child {
      bool left = false; // killed: its tables stay
      Content content;
   } producers[kApps];
   Child readers[kReaders];

   // Runs body(in, out) in a child; body never returns.
   template <class F>
   void spawn(Child& c, F body) {
      int down[2], up[2];
      ASSERT_EQ(::pipe(down), 0);
      ASSERT_EQ(::pipe(up), 0);
      c.pid = ::fork();
      if (c.pid == 0) {
         for (int fd : parentEnds) ::close(fd);
         ::close(down[1]);
         ::close(up[0]);
         body(down[0], up[1]);
      }
      ::close(down[0]);
      ::close(up[1]);
      c.to = down[1];
      c.from = up[0];
      parentEnds.push_back(c.to);
      parentEnds.push_back(c.from);
   }
   // Killed, or (withdraw) told to go by the end of its input; reaped.
   int stop(Child& c, bool withdraw = false) {
      if (!withdraw) ::kill(c.pid, SIGKILL);
      for (int* fd : {&c.to, &c.from}) {
         std::erase(parentEnds, *fd);
         ::close(*fd);
         *fd = -1;
      }
      const int code = Pond::Test::exitCode(c.pid);
      c.pid = -1;
      return code;
   }
   // Serves the loop until the parent closes `in`.
   static void serve(Loop::EpollLoop& loop, int in, const std::function<void()>& onByte = {}) {
      bool done = false;
      const Loop::Watch w = loop.watchReadable(in, [&] {
         char c;
         if (!(done = ::read(in, &c, 1) <= 0) && onByte) onByte();
      });
      while (!done) loop.runOnce(1);
   }

   void start(int app, std::mt19937& rng, int generation) {
      Producer& p = producers[app];
      p.content.clear();
      for (int v = 0; v < 2; ++v)
         for (uint32_t k = 0; k < kKeys; ++k)
            if (rng() % 2) p.content[{v, k}] = app * 1000 + generation;
      spawn(p, [&](int in, int out) {
         Loop::EpollLoop loop;
         MfibProducer producer(AddressFamily::ipv4, apps[app], loop, options);
         for (const auto& vrf : vrfs) producer.table(vrf).routeDelAll();
         for (const auto& [at, iif] : p.content) {
            Route r(key(at.second));
            r.iifIs(Pakto::IntfId("Ethernet" + std::to_string(iif)));
            r.routePriorityIs(RoutePriority(uint8_t(app + 1)));
            producer.routeIs(vrfs[at.first], r);
         }
         if (::write(out, "r", 1) != 1) ::_exit(1);
         serve(loop, in);
         producer.withdraw();
         ::_exit(0);
      });
      char c;
      ASSERT_EQ(::read(p.from, &c, 1), 1) << apps[app] << " did not start";
      p.left = false;
   }
   void kill(int app) {
      stop(producers[app]);
      producers[app].left = true;
   }
   void withdraw(int app) {
      EXPECT_EQ(stop(producers[app], true), 0) << apps[app] << " withdrew badly";
      producers[app].content.clear();
   }
   void remove(int app) {
      removeDeadProducer(AddressFamily::ipv4, apps[app], options);
      producers[app].left = false;
      producers[app].content.clear();
   }

   void startReader(int n) {
      spawn(readers[n], [&](int in, int out) {
         Loop::EpollLoop loop;
         MfibReader reader(AddressFamily::ipv4, loop, options);
         serve(loop, in, [&] {
            const std::string d = dump(reader);
            const uint32_t size = uint32_t(d.size());
            if (::write(out, &size, 4) != 4 || ::write(out, d.data(), size) != ssize_t(size)) ::_exit(1);
         });
         ::_exit(0);
      });
   }
   std::string ask(int n) {
      Child& r = readers[n];
      uint32_t size = 0;
      if (::write(r.to, "d", 1) != 1 || ::read(r.from, &size, 4) != 4) return "no answer";
      std::string d(size, '\0');
      for (std::size_t got = 0; got < size;) {
         const ssize_t k = ::read(r.from, d.data() + got, size - got);
         if (k <= 0) return "no answer";
         got += std::size_t(k);
      }
      return d;
   }

   // The merge of what every producer last wrote, computed on its own.
   std::string expected() const {
      std::map<std::pair<int, uint32_t>, int> best; // -> app
      for (int app = 0; app < kApps; ++app)
         for (const auto& [at, iif] : producers[app].content) best[at] = app; // apps in rising priority
      std::vector<std::tuple<int, IpGenRouteKey, std::string>> inForce;
      std::vector<std::string> merged;
      for (const auto& [at, app] : best) {
         Route r;
         r.iifIs(Pakto::IntfId("Ethernet" + std::to_string(producers[app].content.at(at))));
         merged.push_back(line(vrfs[at.first], key(at.second), r));
         inForce.emplace_back(at.first, key(at.second), merged.back());
      }
      std::sort(merged.begin(), merged.end());
      std::sort(inForce.begin(), inForce.end()); // the ordered index walks VRFs, then keys in key order
      std::string out = "merged\n";
      for (const auto& l : merged) out += l;
      out += "ordered\n";
      for (const auto& e : inForce) out += std::get<2>(e);
      return out;
   }

   void TearDown() override {
      for (int app = 0; app < kApps; ++app)
         if (producers[app].pid > 0) kill(app);
      for (Child& r : readers)
         if (r.pid > 0) stop(r);
      for (const char* app : apps) try {
            removeDeadProducer(AddressFamily::ipv4, app, options);
         } catch (const Gant::TableError&) {
         }
   }
};

TEST_F(MfibProcesses, RandomStartsKillsAndWithdrawalsEndInTheIndependentMerge) {
   const char* stress = std::getenv("MCASTFIB_STRESS_SECONDS");
   const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(stress ? std::atof(stress) : 0);
   std::mt19937 rng(20261124);
   for (int n = 0; n < kReaders; ++n) startReader(n);
   int round = 0;
   std::map<std::string, int> done;
   for (; round < 24 || std::chrono::steady_clock::now() < until; ++round) {
      const int app = int(rng() % kApps);
      Producer& p = producers[app];
      const int pick = int(rng() % 10);
      std::string what;
      if (pick < 2) {
         const int n = int(rng() % kReaders);
         stop(readers[n]);
         startReader(n);
         what = "reader restarted";
      } else if (p.pid < 0 && (!p.left || pick < 7)) {
         what = p.left ? "restarted after a kill" : "started";
         start(app, rng, round);
      } else if (p.pid < 0) {
         remove(app);
         what = "removed after a kill";
      } else if (pick < 6) {
         kill(app);
         what = "killed";
      } else {
         withdraw(app);
         what = "withdrew";
      }
      ++done[what];
      const std::string want = expected();
      for (int n = 0; n < kReaders; ++n) {
         std::string got;
         for (int tries = 0; tries < 500 && (got = ask(n)) != want; ++tries) ::usleep(10000);
         ASSERT_EQ(got, want) << "round " << round << ": " << apps[app] << " " << what << ", reader " << n;
      }
   }
   if (stress) std::printf("%d rounds\n", round);
   for (const char* what : {"started", "killed", "withdrew", "restarted after a kill", "removed after a kill", "reader restarted"})
      EXPECT_GT(done[what], 0) << "never " << what;
}

// A table mounted is reported key by key once the ordered index holds
// what its read changed, never half-way through.
TEST_F(MfibProcesses, AMountIsReportedWithTheIndexUpToDate) {
   Loop::EpollLoop loop;
   MfibProducer high(AddressFamily::ipv4, "high", loop, options), low(AddressFamily::ipv4, "low", loop, options);
   for (uint32_t k = 0; k < 40; ++k) {
      Route r(key(k));
      r.routePriorityIs(RoutePriority(uint8_t(2 + k % 3)));
      (k % 2 ? high : low).routeIs(vrfs[0], r);
      r.routePriorityIs(3);
      if (k % 5 == 0) high.routeIs(vrfs[0], r);
   }
   MfibReader reader(AddressFamily::ipv4, loop, options);
   std::set<IpGenRouteKey> reported;
   int stale = 0;
   reader.onRoute = [&](const L3::VrfName& vrf, const IpGenRouteKey& k) {
      reported.insert(k);
      if (reader.ordered(vrf)->route(k) != reader.mfibPondDir()->pondColl(vrf)->pondKey(k)) ++stale;
   };
   loop.runUntil([&] { return reader.settled() && reader.ordered(vrfs[0]) && reported.size() == 40; }, 5);
   EXPECT_EQ(reported.size(), 40u);
   EXPECT_EQ(stale, 0);
   EXPECT_EQ(reader.ordered(vrfs[0])->routeSize(), 40u);
}

TEST_F(MfibProcesses, ADamagedTableIsReportedAndTheOthersAreStillMerged) {
   Loop::EpollLoop loop;
   MfibProducer high(AddressFamily::ipv4, "high", loop, options), low(AddressFamily::ipv4, "low", loop, options);
   for (uint32_t k = 0; k < 3; ++k) {
      Route r(key(k));
      r.iifIs(Pakto::IntfId("Ethernet1"));
      r.routePriorityIs(1);
      low.routeIs(vrfs[0], r);
      r.iifIs(Pakto::IntfId("Ethernet2"));
      r.routePriorityIs(2);
      high.routeIs(vrfs[0], r);
   }
   // Every byte of high's record for key 1 but its key scribbled over.
   const IpGenRouteKey k1 = key(1);
   auto* record = const_cast<unsigned char*>(
       static_cast<const unsigned char*>(high.table(vrfs[0]).tableWriter()->collection(0).find(&k1)));
   ASSERT_NE(record, nullptr);
   const Route shape;
   const std::size_t keyAt = std::size_t(reinterpret_cast<const char*>(&shape.key()) - reinterpret_cast<const char*>(&shape));
   for (std::size_t i = 0; i < sizeof(Route); ++i)
      if (i < keyAt || i >= keyAt + sizeof(IpGenRouteKey)) record[i] = 0xff;

   Flashlog::Capture capture("Mroute::MfibPond=1");
   MfibReader reader(AddressFamily::ipv4, loop, options);
   std::vector<std::string> reported;
   reader.onTableStatus = [&](const L3::VrfName&, const Status& t) {
      if (!t.corruption().empty()) reported.push_back(t.name() + ": " + t.corruption());
   };
   loop.runUntil([&] { return reader.settled() && reader.ordered(vrfs[0]) && reader.ordered(vrfs[0])->routeSize() == 3; }, 5);
   auto coll = reader.mfibPondDir()->pondColl(vrfs[0]);
   ASSERT_TRUE(coll);
   EXPECT_EQ(coll->route(key(1)).iif(), Pakto::IntfId("Ethernet1")) << "the damaged route counts as absent";
   EXPECT_EQ(coll->route(key(0)).iif(), Pakto::IntfId("Ethernet2")) << "high's other routes stay in force";
   EXPECT_EQ(coll->route(key(2)).iif(), Pakto::IntfId("Ethernet2"));
   ASSERT_FALSE(reported.empty());
   for (const std::string& r : reported) EXPECT_TRUE(r.starts_with("high: ")) << r;
   ASSERT_EQ(capture.lines().size(), 1u);
   EXPECT_TRUE(capture.lines()[0].starts_with("MfibReader: table of high for VRF default is corrupt: "))
       << capture.lines()[0];
}

} // namespace
