// mcastfib routes: a producer process writes a route table in shared memory
// while a reader process follows it, as the MFIB's agents do.
#include "tools/RoutesCommand.h"

#include "tools/Commands.h"
#include "tools/Signals.h"

#include "gant/Error.h"
#include "loop/EpollLoop.h"
#include "shmfib/RouteTable.h"
#include "sys/Calls.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
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

// The reader process, killed and reaped however the command ends: none is
// ever left behind.
class Child {
 public:
   explicit Child(pid_t pid) : pid_(pid) {
      if (pid_ < 0) throw Gant::ErrnoError("fork", errno);
   }
   ~Child() {
      if (pid_ <= 0) return;
      ::kill(pid_, SIGKILL);
      while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
      }
   }
   Child(const Child&) = delete;
   Child& operator=(const Child&) = delete;

   bool isChild() const noexcept { return pid_ == 0; }
   // Whether it has exited; its exit code is then in *code (1 unless it
   // exited of itself with a code).
   bool exited(int* code) {
      int status = 0;
      const pid_t r = ::waitpid(pid_, &status, WNOHANG);
      if (r == 0 || (r < 0 && errno == EINTR)) return false;
      pid_ = -1;
      if (r < 0) return *code = 1, true;
      *code = WIFEXITED(status) ? WEXITSTATUS(status) : 1;
      return true;
   }

 private:
   pid_t pid_;
};

// The writer's segment goes with the command, however it ends.
struct SegmentRemoval {
   Pond::TableWriter* writer;
   ~SegmentRemoval() { writer->unlink(); }
};

// The reader: prints what it hears once the writer is done. It dies with
// the writer's process, even one killed outright, and never returns into
// the writer's code: unwinding there would remove the writer's table.
[[noreturn]] void follow(pid_t writer, const std::string& path, const Pond::Options& options, int changes) try {
   defaultSignalHandlers();
   ::prctl(PR_SET_PDEATHSIG, SIGKILL);
   if (::getppid() != writer) ::_exit(1);
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
} catch (...) {
   ::_exit(1);
}

} // namespace

int routesCommand(std::span<const std::string> args, std::ostream& out) {
   expectArgs(args, 0, 0);
   const auto writer = static_cast<pid_t>(Sys::calls().getpid().value);
   Pond::Options options;
   options.prefix = "mcastfib-demo-" + std::to_string(writer);
   const std::string path = Status::mountPath(Pakto::AddressFamily::ipv4, L3::VrfName("default"), "demo");
   Loop::EpollLoop loop;
   auto table = statusFactory("demo");
   table->openWriter(path, &loop, options);
   const SegmentRemoval removal{table->tableWriter()};
   // A signal wakes the loop, and each wait below then ends.
   const Loop::Watch signalWatch = loop.watchReadable(signalFd(), [] {});
   out << "writer: table " << path << " in " << table->tableWriter()->segmentName() << " ("
       << table->tableWriter()->segmentSize() << " bytes)\n";
   checkStop(out);
   constexpr int kChanges = 4;
   Child reader(::fork());
   if (reader.isChild()) follow(writer, path, options, kChanges);
   loop.runUntil([&] { return stopping(out) || table->tableWriter()->armedReaders() == 1; }, 10);
   checkStop(out);

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
   checkStop(out);

   int code = 1;
   while (!reader.exited(&code)) {
      checkStop(out);
      loop.runOnce(0.01);
   }
   return code;
}

} // namespace Tool
