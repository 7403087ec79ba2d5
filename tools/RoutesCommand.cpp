// mcastfib routes: a producer process writes a route table in shared memory
// while a reader process follows it, as the MFIB's agents do.
#include "tools/RoutesCommand.h"

#include "loop/EpollLoop.h"
#include "shmfib/RouteTable.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

namespace Tool {

using namespace Pond::Multicast::Fib;

namespace {

Routing::Multicast::Fib::IpGenRouteKey key(const char* s, const char* g) {
   return Routing::Multicast::Fib::makeRouteKeyMroute(Gant::fromText<Pakto::Prefix>(s), Gant::fromText<Pakto::Prefix>(g));
}

// The reader: prints what it hears once the writer is done.
[[noreturn]] void follow(const std::string& path, const Pond::Options& options, int changes) {
   Loop::EpollLoop loop;
   auto table = statusFactory("demo");
   struct Printer : Status::Reactor {
      using Status::Reactor::Reactor;
      std::vector<std::string> lines;
      int seen = 0;
      void onRoute(const Routing::Multicast::Fib::IpGenRouteKey& k) override {
         ++seen;
         auto r = notifier()->route(k);
         lines.push_back(r ? "reader: " + r->pondString() : "reader: " + k.pretty() + " removed");
      }
   } printer(table.ptr());
   table->openReader(path, loop, options);
   loop.runUntil([&] { return printer.seen >= changes; }, 10);
   for (const auto& l : printer.lines) std::printf("%s\n", l.c_str());
   std::fflush(stdout);
   ::_exit(printer.seen >= changes ? 0 : 1);
}

} // namespace

int routesCommand(std::span<const std::string>, std::ostream& out) {
   Pond::Options options;
   options.prefix = "mcastfib-demo-" + std::to_string(::getpid());
   const std::string path = Status::mountPath(Pakto::AddressFamily::ipv4, L3::VrfName("default"), "demo");
   Loop::EpollLoop loop;
   auto table = statusFactory("demo");
   table->openWriter(path, &loop, options);
   out << "writer: table " << path << " in " << table->tableWriter()->segmentName() << " ("
       << table->tableWriter()->segmentSize() << " bytes)\n";
   out.flush();
   constexpr int kChanges = 4;
   pid_t reader = ::fork();
   if (reader == 0) follow(path, options, kChanges);
   loop.runUntil([&] { return table->tableWriter()->armedReaders() == 1; }, 10);

   Route a(key("10.0.0.1/32", "239.1.1.1/32"));
   a.iifIs(Pakto::IntfId("Ethernet1"));
   a.oifIs(3, true);
   a.oifIs(70, true);
   a.maxOifIndexIs(70);
   a.routeFlagsIs(Route::RouteFlags(Route::RouteFlags::validMask));
   Route b(key("0.0.0.0/0", "239.1.1.2/32"));
   b.iifIs(Pakto::IntfId("Vlan100"));
   b.oifIs(5, true);
   b.maxOifIndexIs(5);
   for (const Route& r : {a, b}) {
      table->routeIs(r);
      out << "writer: set " << r.pondString() << "\n";
   }
   Route& staged = table->routeModify(a.key());
   staged.oifIs(70, false);
   staged.versionIs(2);
   table->routeCommit(&staged);
   out << "writer: commit " << staged.pondString() << "\n";
   table->routeDel(b.key());
   out << "writer: delete " << b.key().pretty() << "\n";
   out.flush();

   int status = 0;
   while (::waitpid(reader, &status, WNOHANG) == 0) loop.runOnce(0.01);
   table->tableWriter()->unlink();
   return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

} // namespace Tool
