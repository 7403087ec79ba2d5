// mcastfib demo: the library's main job with real processes on real shared
// memory. Three producer processes of different priorities write routes for
// two VRFs and both families; this process reads them as a hardware agent
// would (MfibDirSm mounting, OrderRouteSm ordering) and prints the merged
// MFIB; then the producer in force is killed, removed, and the others
// withdraw, with figures measured on the way.
#include "tools/DemoCommand.h"

#include "tools/Commands.h"
#include "tools/MfibCommands.h"
#include "tools/ProducerScript.h"
#include "tools/Signals.h"
#include "tools/UpcallDemo.h"

#include "gant/Error.h"
#include "loop/EpollLoop.h"
#include "shmfib/DirCleanup.h"
#include "sys/Calls.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iomanip>
#include <ostream>
#include <vector>

namespace Tool {

using namespace Pond::Multicast::Fib;

namespace {

// The monotonic clock: the same in every process of the demo.
int64_t nowNs() {
   return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
       .count();
}

const char* afName(Pakto::AddressFamily af) { return af == Pakto::AddressFamily::ipv4 ? "ipv4" : "ipv6"; }

struct Script {
   const char* app;
   uint8_t priority;
   std::vector<const char*> lines;
};

const Script scripts[] = {
    {"static", 3,
     {"add (10.0.0.1,239.1.1.1) iif Ethernet1 oif Ethernet2 Ethernet3",
      "add (10.0.0.2,239.1.1.2) iif Ethernet1 oif Ethernet4",
      "add (2001:db8::1,ff3e::1) iif Ethernet1 oif Ethernet2", "commit"}},
    {"pim", 2,
     {"add (10.0.0.1,239.1.1.1) iif Ethernet5 oif Ethernet6",
      "add (*,239.1.1.3) iif Ethernet5 oif Ethernet6 Ethernet7 flags valid,toCpu",
      "add (10.1.0.1,239.2.2.2) vrf red iif Ethernet8 oif Ethernet9",
      "add (2001:db8::1,ff3e::1) iif Ethernet5 oif Ethernet6", "add (*,ff3e::2) iif Ethernet5 oif Ethernet7",
      "commit"}},
    {"igmp", 1,
     {"add (*,239.1.1.3) iif Vlan10 oif Ethernet11", "add (10.1.0.1,239.2.2.2) vrf red iif Vlan20 oif Ethernet12",
      "add (*,239.1.1.4) iif Vlan10 oif Ethernet13", "commit"}},
};

// A producer process fed through a pipe: each line goes to its
// ProducerScript; after each commit it answers with the monotonic time the
// commit ended at. The end of its input withdraws it.
class Producer {
 public:
   Producer(const Script& s, const Pond::Options& options) : script_(s) {
      int in[2], back[2];
      if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(back, O_CLOEXEC) != 0) throw Gant::ErrnoError("pipe", errno);
      const pid_t parent = ::getpid();
      pid_ = ::fork();
      if (pid_ < 0) throw Gant::ErrnoError("fork", errno);
      if (pid_ == 0) {
         // Earlier producers' pipes stay the parent's alone: their input ends
         // only when the parent closes it.
         for (int fd : parentEnds()) ::close(fd);
         ::close(in[1]);
         ::close(back[0]);
         run(in[0], back[1], parent, options);
      }
      ::close(in[0]);
      ::close(back[1]);
      to_ = in[1];
      from_ = back[0];
      parentEnds().push_back(to_);
      parentEnds().push_back(from_);
   }
   ~Producer() {
      kill();
      if (to_ >= 0) close(to_);
      close(from_);
   }
   const char* app() const { return script_.app; }
   pid_t pid() const { return pid_; }
   // Sends a line; waits for the commit's time when it is a commit.
   int64_t send(const std::string& line) {
      const std::string l = line + "\n";
      if (::write(to_, l.data(), l.size()) != ssize_t(l.size())) throw Gant::ErrnoError("write", errno);
      if (line != "commit") return 0;
      int64_t at = 0;
      if (::read(from_, &at, sizeof at) != sizeof at) throw std::runtime_error(std::string(app()) + " did not commit");
      return at;
   }
   void kill() {
      if (pid_ <= 0) return;
      ::kill(pid_, SIGKILL);
      reap();
   }
   // Closes its input: it withdraws and exits.
   void withdraw() {
      close(to_);
      to_ = -1;
      reap();
   }

 private:
   static std::vector<int>& parentEnds() {
      static std::vector<int> fds;
      return fds;
   }
   static void close(int fd) {
      std::erase(parentEnds(), fd);
      ::close(fd);
   }
   void reap() {
      while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
      }
      pid_ = -1;
   }
   [[noreturn]] void run(int in, int back, pid_t parent, const Pond::Options& options) try {
      defaultSignalHandlers();
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (::getppid() != parent) ::_exit(1);
      Loop::EpollLoop loop;
      ProducerScript script(script_.app, script_.priority, L3::VrfName("default"), loop, options);
      std::string buffer;
      bool done = false;
      const Loop::Watch watch = loop.watchReadable(in, [&] {
         char chunk[4096];
         const ssize_t n = ::read(in, chunk, sizeof chunk);
         if (n <= 0) {
            done = n == 0 || errno != EINTR;
            return;
         }
         buffer.append(chunk, std::size_t(n));
         for (std::size_t nl; (nl = buffer.find('\n')) != std::string::npos; buffer.erase(0, nl + 1)) {
            const std::size_t before = script.pending();
            if (!script.line(std::string_view(buffer).substr(0, nl)).empty()) ::_exit(2);
            if (before && !script.pending()) {
               const int64_t at = nowNs();
               if (::write(back, &at, sizeof at) != sizeof at) ::_exit(1);
            }
         }
      });
      while (!done) loop.runOnce(1);
      script.withdraw();
      ::_exit(0);
   } catch (...) {
      ::_exit(1);
   }

   const Script& script_;
   pid_t pid_ = -1;
   int to_ = -1;
   int from_ = -1;
};

std::size_t routesInForce(const std::vector<std::unique_ptr<MfibReader>>& readers) {
   std::size_t n = 0;
   for (const auto& r : readers)
      for (const auto& [vrf, coll] : r->mfibPondDir()->pondColl())
         if (auto o = r->ordered(vrf)) n += o->routeSize();
   return n;
}

} // namespace

int demoCommand(std::span<const std::string> args, std::ostream& out) {
   expectArgs(args, 0, 0);
   Pond::Options options;
   options.prefix = "mcastfib-demo-" + std::to_string(::getpid());
   Loop::EpollLoop loop;
   const Loop::Watch signalWatch = loop.watchReadable(signalFd(), [] {});
   auto runUntil = [&](auto done, const char* what) {
      const int64_t until = nowNs() + 5000000000LL;
      while (!done()) {
         checkStop(out);
         if (nowNs() > until) throw std::runtime_error(std::string("timed out waiting for ") + what);
         loop.runOnce(0.05);
      }
   };
   // Whatever happens, no producer and no segment outlives the demo.
   struct Cleanup {
      std::vector<std::unique_ptr<Producer>>& producers;
      const Pond::Options& options;
      ~Cleanup() {
         for (auto& p : producers) p->kill();
         for (const Script& s : scripts)
            for (auto af : {Pakto::AddressFamily::ipv4, Pakto::AddressFamily::ipv6}) try {
                  removeDeadProducer(af, s.app, options);
               } catch (...) {
               }
      }
   };
   std::vector<std::unique_ptr<Producer>> producers;
   const Cleanup cleanup{producers, options};

   out << "Three producer processes write routes into shared memory (prefix " << options.prefix
       << "); this process\nreads them as an agent does and merges them by priority.\n\n";
   for (const Script& s : scripts) {
      producers.push_back(std::make_unique<Producer>(s, options));
      out << "producer " << s.app << ", priority " << unsigned(s.priority) << ", process " << producers.back()->pid()
          << ":\n";
      for (const char* line : s.lines) {
         out << "  " << s.app << "> " << line << "\n";
         producers.back()->send(line);
      }
   }
   checkStop(out);

   const int64_t mountStart = nowNs();
   std::vector<std::unique_ptr<MfibReader>> readers;
   for (auto af : {Pakto::AddressFamily::ipv4, Pakto::AddressFamily::ipv6})
      readers.push_back(std::make_unique<MfibReader>(af, loop, options));
   constexpr std::size_t kRoutes = 7; // distinct keys over both families and VRFs
   runUntil([&] { return routesInForce(readers) == kRoutes; }, "the merged routes");
   const int64_t mountNs = nowNs() - mountStart;
   out << "\nThe reader mounted 2 directories x 3 producers and merged them:\n";
   for (const auto& r : readers) printMfib(*r, out);

   // From here every change of a route in force is printed as it comes.
   for (const auto& r : readers) {
      MfibReader& reader = *r;
      reader.onRoute = [&out, &reader](const L3::VrfName& vrf, const IpGenRouteKey& key) {
         auto coll = reader.mfibPondDir()->pondColl(vrf);
         Route route;
         const Status* table = coll ? coll->routeInForce(key, route) : nullptr;
         out << "  reader: " << afName(reader.af()) << ' ' << vrf.str() << "  "
             << (table ? routeLine(reader, *table, route) : key.pretty() + "  deleted") << "\n";
      };
      reader.onProducer = [&out, &reader](const Gant::String& app) {
         const auto& p = reader.producers();
         out << "  reader: " << afName(reader.af()) << " producer " << app << ' ' << (!p->liveHas(app) ? "left" : p->live(app) ? "live" : "stale")
             << "\n";
      };
   }

   out << "\nstatic is killed with SIGKILL: it is marked stale, its routes stay in force.\n";
   producers[0]->kill();
   runUntil([&] {
      for (const auto& r : readers)
         if (r->producers()->live("static")) return false;
      return true;
   }, "static to go stale");
   for (const auto& r : readers) printMfib(*r, out);

   out << "\nWhat static left is removed (removeDeadProducer); the next producer takes over, key by key:\n";
   for (auto af : {Pakto::AddressFamily::ipv4, Pakto::AddressFamily::ipv6}) removeDeadProducer(af, "static", options);
   runUntil([&] { return routesInForce(readers) == kRoutes - 1; }, "pim to take over");
   for (const auto& r : readers) printMfib(*r, out);

   // Commit-to-reader latency: pim rewrites one route; the reader notes when
   // it hears it, the producer when its commit ended.
   for (const auto& r : readers) r->onRoute = nullptr, r->onProducer = nullptr;
   const IpGenRouteKey probe = Routing::Multicast::Fib::makeRouteKeyMroute(
       Gant::fromText<Pakto::Prefix>("10.9.9.9/32"), Gant::fromText<Pakto::Prefix>("239.9.9.9/32"));
   int64_t heard = 0;
   readers[0]->onRoute = [&](const L3::VrfName&, const IpGenRouteKey& key) {
      if (key == probe && !heard) heard = nowNs();
   };
   std::vector<int64_t> latency;
   constexpr int kProbes = 300;
   for (int i = 0; i < kProbes; ++i) {
      heard = 0;
      producers[1]->send("add (10.9.9.9,239.9.9.9) iif Ethernet5 oif Ethernet" + std::to_string(20 + i % 2));
      const int64_t committed = producers[1]->send("commit");
      runUntil([&] { return heard != 0; }, "the probe route");
      latency.push_back(heard - committed);
   }
   std::sort(latency.begin(), latency.end());

   out << "\npim and igmp withdraw (their input ends): their routes leave.\n";
   producers[1]->withdraw();
   producers[2]->withdraw();
   runUntil([&] { return routesInForce(readers) == 0; }, "the withdrawals");
   out << "  reader: " << routesInForce(readers) << " routes in force\n";

   out << std::fixed << std::setprecision(1) << "\nMeasured here:\n"
       << "  mount and merge, 2 families x 3 producers, " << kRoutes << " routes: " << mountNs / 1e6 << " ms\n"
       << "  commit to reader, " << kProbes << " commits in another process: median "
       << latency[latency.size() / 2] / 1e3 << " us, 99th percentile " << latency[latency.size() * 99 / 100] / 1e3
       << " us\n";
   if (::geteuid() == 0) upcallDemo(out);
   else out << "\n(Run as root to also see kernel upcalls from a network namespace.)\n";
   return 0;
}

} // namespace Tool
