#include "tools/MfibCommands.h"

#include "tools/Commands.h"
#include "tools/FlagWords.h"
#include "tools/ProducerScript.h"
#include "tools/Signals.h"

#include "loop/EpollLoop.h"
#include "shmfib/RouteIntfIterator.h"
#include "sys/Calls.h"

#include <sys/stat.h>
#include <unistd.h>

#include <iomanip>
#include <map>
#include <ostream>
#include <sstream>

namespace Tool {

using namespace Pond::Multicast::Fib;

const char* const showDetails =
    "Mounts every producer's tables of the family (both when --af is not given)\n"
    "found in /dev/shm under PREFIX (default mcastfib), merges them by route\n"
    "priority and prints each VRF's routes in key order: the producer in force\n"
    "and its priority, each interface with its roles, and the route flags.\n"
    "Producers that died without withdrawing are marked stale; their routes stay\n"
    "in force.";
const char* const watchDetails =
    "Like show, then prints each route of the merged view as it is added, updated\n"
    "or removed, and producers as they appear, go stale, return or leave, until\n"
    "interrupted.";
const char* const produceDetails =
    "A producer named APP whose routes have priority N (1..255; 0 is never in\n"
    "force), fed one change per line on standard input:\n"
    "  add KEY iif INTF [oif INTF...] [vrf NAME] [flags WORD,...]\n"
    "  del KEY [vrf NAME]\n"
    "  commit\n"
    "Changes wait for commit. KEY is a key as printed: (10.0.0.1,239.1.1.1),\n"
    "(*,ff3e::1)...; flags are valid, toCpu, iifRegister, oifRegister, programmable,\n"
    "skipKernelProgramming (valid when none is given); the VRF is --vrf's (default:\n"
    "default) unless a line names one. At the end of the input the producer withdraws\n"
    "and readers let go of its routes; killed, it leaves them in force.";

namespace {

std::vector<Pakto::AddressFamily> families(const Args& a) {
   const std::string af = a.get("--af", "");
   if (af.empty()) return {Pakto::AddressFamily::ipv4, Pakto::AddressFamily::ipv6};
   if (af == "ipv4") return {Pakto::AddressFamily::ipv4};
   if (af == "ipv6") return {Pakto::AddressFamily::ipv6};
   throw UsageError("bad --af '" + af + "': ipv4 or ipv6");
}

Pond::Options prefixed(const Args& a) {
   Pond::Options o;
   o.prefix = a.get("--prefix", o.prefix);
   return o;
}

// Readers of each family, once they have read what they found.
std::vector<std::unique_ptr<MfibReader>> readers(const Args& a, Loop::EpollLoop& loop) {
   std::vector<std::unique_ptr<MfibReader>> out;
   for (Pakto::AddressFamily af : families(a)) out.push_back(std::make_unique<MfibReader>(af, loop, prefixed(a)));
   // Each table mounted may name more: settle until a turn brings nothing.
   for (int turn = 0; turn < 200; ++turn) {
      loop.runOnce(0.01);
      bool settled = true;
      for (auto& r : out) settled = settled && r->settled();
      if (settled && turn >= 2) break;
   }
   return out;
}

} // namespace

std::string routeLine(const MfibReader& reader, const Status& table, const Route& route) {
   std::ostringstream s;
   s << std::left << std::setw(30) << route.key().pretty() << ' ' << std::setw(10) << table.name() << ' '
     << std::setw(4) << unsigned(route.routePriority().value());
   for (RouteIntfIteratorConst it(Gant::PtrConst<Status>(&table), route.key()); it.next();)
      s << ' ' << it.intfId().name() << '(' << flagWords(it.intfFlags()) << ')';
   s << "  " << flagWords(route.routeFlags());
   if (reader.producers()->liveHas(table.name()) && !reader.producers()->live(table.name())) s << "  stale";
   return s.str();
}

void printMfib(const MfibReader& reader, std::ostream& out, const std::string& vrf) {
   const char* af = reader.af() == Pakto::AddressFamily::ipv4 ? "ipv4" : "ipv6";
   for (const auto& [name, coll] : reader.mfibPondDir()->pondColl()) {
      if (!vrf.empty() && name.str() != vrf) continue;
      const auto ordered = reader.ordered(name);
      out << af << " vrf " << name.str() << ": " << (ordered ? ordered->routeSize() : 0) << " routes, producers";
      for (const auto& [key, table] : coll->pondPtr()) {
         out << ' ' << table->name();
         if (!reader.producers()->live(table->name())) out << " (stale)";
      }
      out << "\n";
      if (!ordered) continue;
      for (const auto& [key, table] : ordered->route()) {
         Route r;
         if (MfibPondColl::holds(*table, key, r)) out << "  " << routeLine(reader, *table, r) << "\n";
      }
   }
}

int showCommand(std::span<const std::string> args, std::ostream& out) {
   const Args a = parseArgs(args, {"--af", "--vrf", "--prefix"});
   Loop::EpollLoop loop;
   for (const auto& r : readers(a, loop)) printMfib(*r, out, a.get("--vrf", ""));
   return 0;
}

int watchCommand(std::span<const std::string> args, std::ostream& out) {
   const Args a = parseArgs(args, {"--af", "--vrf", "--prefix"});
   const std::string vrf = a.get("--vrf", "");
   Loop::EpollLoop loop;
   auto all = readers(a, loop);
   // What was last printed for each key: changes are told against it.
   std::map<std::pair<L3::VrfName, IpGenRouteKey>, std::string> shown;
   for (auto& r : all) {
      printMfib(*r, out, vrf);
      MfibReader& reader = *r;
      for (const auto& [name, coll] : reader.mfibPondDir()->pondColl())
         if (auto ordered = reader.ordered(name))
            for (const auto& [key, table] : ordered->route()) {
               Route route;
               if (MfibPondColl::holds(*table, key, route)) shown[{name, key}] = routeLine(reader, *table, route);
            }
      reader.onRoute = [&out, &shown, &reader, vrf](const L3::VrfName& name, const IpGenRouteKey& key) {
         if (!vrf.empty() && name.str() != vrf) return;
         auto coll = reader.mfibPondDir()->pondColl(name);
         Route route;
         const Status* table = coll ? coll->routeInForce(key, route) : nullptr;
         auto it = shown.find({name, key});
         if (!table) {
            if (it == shown.end()) return;
            out << "delete " << name.str() << "  " << key.pretty() << "\n" << std::flush;
            shown.erase(it);
            return;
         }
         const std::string line = routeLine(reader, *table, route);
         if (it != shown.end() && it->second == line) return;
         out << (it == shown.end() ? "add    " : "update ") << name.str() << "  " << line << "\n" << std::flush;
         shown[{name, key}] = line;
      };
      reader.onProducer = [&out, &reader](const Gant::String& app) {
         const auto& p = reader.producers();
         out << "producer " << app << ' ' << (!p->liveHas(app) ? "left" : p->live(app) ? "live" : "stale") << "\n"
             << std::flush;
      };
      reader.onTableStatus = [&out](const L3::VrfName& name, const Status& table) {
         if (!table.corruption().empty())
            out << "corrupt " << name.str() << "  " << table.name() << ": " << table.corruption() << "\n" << std::flush;
      };
   }
   checkStop(out);
   const Loop::Watch signalWatch = loop.watchReadable(signalFd(), [] {});
   while (!stopping(out)) loop.runOnce(1);
   return 0;
}

int produceCommand(std::span<const std::string> args, std::ostream& out) {
   const Args a = parseArgs(args, {"--app", "--priority", "--vrf", "--prefix"});
   const std::string app = a.get("--app", "");
   if (app.empty()) throw UsageError("--app is needed");
   const auto priority = argument<uint8_t>("priority", a.get("--priority", "1"));
   L3::VrfName vrf;
   try {
      vrf = L3::VrfName(a.get("--vrf", "default"));
   } catch (const std::exception& e) {
      throw UsageError("bad --vrf: " + std::string(e.what()));
   }
   Loop::EpollLoop loop;
   ProducerScript script(app, priority, vrf, loop, prefixed(a));
   std::string buffer;
   bool done = false;
   int lineNumber = 0;
   auto readInput = [&] {
      char chunk[4096];
      const Sys::Result r = Sys::calls().read(STDIN_FILENO, chunk, sizeof chunk);
      if (!r.ok() && (r.err == EAGAIN || r.err == EINTR)) return;
      if (!r.ok() || r.value == 0) {
         done = true;
         return;
      }
      buffer.append(chunk, static_cast<std::size_t>(r.value));
      for (std::size_t nl; (nl = buffer.find('\n')) != std::string::npos; buffer.erase(0, nl + 1)) {
         ++lineNumber;
         const std::size_t before = script.pending();
         const std::string why = script.line(std::string_view(buffer).substr(0, nl));
         if (!why.empty()) out << "line " << lineNumber << ": " << why << "\n";
         else if (script.pending() < before) out << "committed " << before << " changes\n";
         out << std::flush;
      }
   };
   const Loop::Watch signalWatch = loop.watchReadable(signalFd(), [] {});
   struct stat st {};
   if (Sys::calls().fstat(STDIN_FILENO, &st).ok() && S_ISREG(st.st_mode)) {
      // A file cannot be watched: read it through, serving readers between.
      while (!done && !stopping(out)) {
         readInput();
         loop.runOnce(0);
      }
   } else {
      const Loop::Watch input = loop.watchReadable(STDIN_FILENO, readInput);
      while (!done && !stopping(out)) loop.runOnce(1);
   }
   // The input's end is a clean exit; a signal leaves the routes in force.
   if (done) script.withdraw();
   return 0;
}

} // namespace Tool
