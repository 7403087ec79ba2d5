// The mcastfib binary as a person uses it: every malformed command line is
// refused with its status and message, never a core dump; and a live table,
// written by another process, is dumped and watched.
#include "bitmapper/BitMapperSm.h"
#include "loop/EpollLoop.h"
#include "pond/WordCopy.h"
#include "pond/WriterLock.h"
#include "shmfib/RouteTable.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <string>
#include <vector>

namespace {

using namespace Pond::Multicast::Fib;

const std::string tool = MCASTFIB_TOOL;

struct Outcome {
   int status = -1;
   std::string out, err;
};

// All a file holds, read from its start.
std::string readAll(int fd) {
   std::string text;
   char buf[4096];
   ::lseek(fd, 0, SEEK_SET);
   for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) text.append(buf, static_cast<std::size_t>(n));
   return text;
}

// The tool run with `words`, shell words as a person types them: its standard
// input ours to write, its output read as it comes, its errors kept in a file.
struct Piped {
   pid_t pid = -1;
   int in = -1, out = -1, err = ::memfd_create("err", MFD_CLOEXEC);
   explicit Piped(const std::string& words) {
      ::signal(SIGPIPE, SIG_IGN); // a tool that has exited fails our writes, not us
      int i[2], o[2];
      if (::pipe2(i, O_CLOEXEC) != 0 || ::pipe2(o, O_CLOEXEC) != 0) return;
      const std::string script = "exec \"$0\" " + words;
      pid = ::fork();
      if (pid == 0) {
         ::dup2(i[0], 0), ::dup2(o[1], 1), ::dup2(err, 2);
         ::execl("/bin/sh", "sh", "-c", script.c_str(), tool.c_str(), nullptr);
         ::_exit(127);
      }
      ::close(i[0]), ::close(o[1]);
      in = i[1], out = o[0];
   }
   ~Piped() {
      if (pid > 0) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
      if (in >= 0) ::close(in);
      ::close(out), ::close(err);
   }
   void write(const std::string& text) { ASSERT_EQ(::write(in, text.data(), text.size()), ssize_t(text.size())); }
   // Output until it holds `part` (with no part, until it ends), or 5 s.
   std::string readUntil(std::string_view part) {
      for (pollfd p{out, POLLIN, 0};
           (part.empty() || seen.find(part) == std::string::npos) && ::poll(&p, 1, 5000) == 1;) {
         char buf[4096];
         const ssize_t n = ::read(out, buf, sizeof buf);
         if (n <= 0) break;
         seen.append(buf, std::size_t(n));
      }
      return seen;
   }
   int endInput() {
      if (in >= 0) ::close(in);
      in = -1;
      int status = 0;
      ::waitpid(pid, &status, 0);
      pid = -1;
      return status;
   }
   std::string seen;
};

// The tool run to its end with no input.
Outcome runTool(const std::string& words) {
   Piped p(words);
   ::close(std::exchange(p.in, -1));
   Outcome r;
   r.out = p.readUntil("");
   r.status = p.endInput();
   r.err = readAll(p.err);
   return r;
}

std::string firstLine(const std::string& s) { return s.substr(0, s.find('\n')); }

::testing::AssertionResult has(const std::string& text, const std::string& part) {
   if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
   return ::testing::AssertionFailure() << "no \"" << part << "\" in:\n" << text;
}

// tools/rejects.golden: "$ ARGS" then "STATUS LINE", LINE being the first
// line of stderr, or for status 0 a line stdout holds.
TEST(ToolCommandLine, MalformedInputsAreRefusedWithTheirStatusAndMessage) {
   // Shared-memory objects that hold no table, named by the cases.
   const std::pair<std::string, std::string> fixtures[] = {
       {"/dev/shm/mcastfib-tooltest.garbage", std::string(8192, '\xab')},
       {"/dev/shm/mcastfib-tooltest.zeros", std::string(8192, '\0')},
       {"/dev/shm/mcastfib-tooltest.short", "abc"}};
   for (const auto& [path, bytes] : fixtures) std::ofstream(path, std::ios::binary) << bytes;
   std::ifstream cases(MCASTFIB_TOOL_CASES);
   EXPECT_TRUE(cases) << MCASTFIB_TOOL_CASES;
   int count = 0;
   for (std::string line, args; std::getline(cases, line);) {
      if (line.starts_with("$")) {
         args = line.substr(std::min<std::size_t>(2, line.size()));
         continue;
      }
      if (line.empty() || line.starts_with("#")) continue;
      SCOPED_TRACE("mcastfib " + args);
      ++count;
      const int want = std::stoi(line);
      const std::string text = line.substr(line.find(' ') + 1);
      const Outcome r = runTool(args);
      ASSERT_TRUE(WIFEXITED(r.status)) << "ended by signal " << WTERMSIG(r.status) << "\n" << r.err;
      EXPECT_EQ(WEXITSTATUS(r.status), want) << r.err;
      if (want == 0) {
         EXPECT_TRUE(has(r.out, text + "\n")) << r.err;
         continue;
      }
      EXPECT_EQ(firstLine(r.err), text);
      EXPECT_EQ(r.out, "");
      if (want == 2) { EXPECT_TRUE(has(r.err, "\nusage: mcastfib")); }
   }
   EXPECT_GT(count, 50);
   for (const auto& f : fixtures) ::unlink(f.first.c_str());
}

// ---- a live table ------------------------------------------------------------

// The writer process killed at the test's end, and its table, wake socket and
// lock file removed.
struct WriterCleanup {
   pid_t pid;
   std::string segment;
   ~WriterCleanup() {
      if (pid > 0) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
      ::shm_unlink(segment.c_str());
      const std::string wake = Pond::wakeSocketPath("/dev/shm", segment);
      ::unlink(wake.c_str()), ::unlink(Pond::writerLockPath(wake).c_str());
   }
};

Route route(const char* s, const char* g, const char* iif) {
   Route r(Routing::Multicast::Fib::makeRouteKeyMroute(Gant::fromText<Pakto::Prefix>(s),
                                                       Gant::fromText<Pakto::Prefix>(g)));
   r.iifIs(Pakto::IntfId(iif));
   return r;
}

// The writer process: two routes, then on 'c' a change, a removal and an
// addition, and on 'q' (or the test's end) it leaves as a writer does,
// keeping its segment.
void serve(const Pond::Options& options, const std::string& path, int commands, int ready) {
   Loop::EpollLoop loop;
   auto table = statusFactory("tooltest");
   table->openWriter(path, &loop, options);
   table->routeIs(route("10.0.0.1/32", "239.1.1.1/32", "Ethernet1"));
   table->routeIs(route("0.0.0.0/0", "239.1.1.2/32", "Vlan100"));
   (void)!::write(ready, "r", 1);
   bool done = false;
   const Loop::Watch w = loop.watchReadable(commands, [&] {
      char c = 'q';
      if (::read(commands, &c, 1) != 1 || c == 'q') return void(done = true);
      table->routeIs(route("10.0.0.1/32", "239.1.1.1/32", "Ethernet2"));
      table->routeDel(route("0.0.0.0/0", "239.1.1.2/32", "Vlan100").key());
      table->routeIs(route("10.0.0.3/32", "239.1.1.3/32", "Ethernet3"));
   });
   loop.runUntil([&] { return done; }, 60);
}

TEST(ToolTable, DumpAndWatchALiveTableOfAnotherProcess) {
   Pond::Options options;
   options.prefix = "mcastfib-tooltest-" + std::to_string(::getpid());
   const std::string path = Status::mountPath(Pakto::AddressFamily::ipv4, L3::VrfName("default"), "tooltest");
   const std::string segment = Pond::segmentName(options.prefix, path);
   int commands[2], ready[2];
   ASSERT_EQ(::pipe(commands), 0);
   ASSERT_EQ(::pipe(ready), 0);
   const pid_t pid = ::fork();
   if (pid == 0) serve(options, path, commands[0], ready[1]), ::_exit(0);
   WriterCleanup cleanup{pid, segment};
   char started;
   ASSERT_EQ(::read(ready[0], &started, 1), 1);

   const std::string header = "table " + path + " of type Pond::Multicast::Fib::Status\nsegment " + segment;
   const std::string writerLine = "writer pid " + std::to_string(pid) + " alive, generation 1, incarnation ";
   for (const std::string& name : {segment, "/dev/shm" + segment, "--prefix " + options.prefix + " " + path}) {
      SCOPED_TRACE(name);
      const Outcome r = runTool("table dump " + name);
      EXPECT_EQ(r.status, 0) << r.err;
      EXPECT_TRUE(r.out.starts_with(header)) << r.out;
      EXPECT_TRUE(has(r.out, writerLine));
      // Ordered by key, the attributes not at their default.
      EXPECT_TRUE(has(r.out, "\nroute: 2 records of Pond::Multicast::Fib::Route (capacity 12000)\n"
                             "  (*,239.1.1.2) {'iif': Vlan100}\n"
                             "  (10.0.0.1,239.1.1.1) {'iif': Ethernet1}\n"));
      EXPECT_TRUE(has(r.out, "\noifIndexIntf: 0 records of Pond::Multicast::Fib::OifIndexIntf (capacity 1024)\n"));
   }

   // watch: the same dump, then each change as it happens, until the writer
   // goes; or until a signal, which ends it as the signal would.
   const std::string dumped = "(capacity 1024)\n", gone = "writer pid " + std::to_string(pid) + " gone\n";
   Piped follows("table watch " + segment), interrupted("table watch " + segment);
   for (Piped* w : {&follows, &interrupted}) EXPECT_TRUE(has(w->readUntil(dumped), writerLine));
   ::kill(interrupted.pid, SIGTERM);
   int status = interrupted.endInput();
   EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
   ASSERT_EQ(::write(commands[1], "c", 1), 1);
   follows.readUntil("Ethernet3}\n");
   ASSERT_EQ(::write(commands[1], "q", 1), 1);
   const std::string watched = follows.readUntil(gone);
   EXPECT_EQ(watched.substr(watched.find(dumped) + dumped.size()),
             "route changed (10.0.0.1,239.1.1.1) {'iif': Ethernet2}\n"
             "route removed (*,239.1.1.2)\n"
             "route added (10.0.0.3,239.1.1.3) {'iif': Ethernet3}\n" + gone);
   status = follows.endInput();
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

   // The segment outlives its writer, and says so.
   ::waitpid(std::exchange(cleanup.pid, 0), nullptr, 0);
   const Outcome after = runTool("table dump " + segment);
   EXPECT_EQ(after.status, 0) << after.err;
   EXPECT_TRUE(has(after.out, "writer pid " + std::to_string(pid) + " gone, generation 1"));
   EXPECT_TRUE(has(after.out, "route: 2 records"));

   // Damage no writer made is shown as such, never read as a record: one
   // record fails its check, another keeps a good check around an interface
   // id that decodes to nothing.
   const Pond::CollectionHeader c = Pond::layoutFor(Status::tableShape()).collections[0];
   const int fd = ::shm_open(segment.c_str(), O_RDWR, 0);
   auto* base = static_cast<unsigned char*>(::mmap(nullptr, c.queueOffset, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
   ::close(fd);
   auto slot = [&](uint32_t i) { return reinterpret_cast<Pond::SlotHeader*>(base + c.slotsOffset + i * c.slotStride); };
   std::vector<uint32_t> live;
   for (uint32_t i = 0; i < c.capacity; ++i)
      if (slot(i)->seq & Pond::kSeqLive) live.push_back(i);
   ASSERT_EQ(live.size(), 2u);
   reinterpret_cast<unsigned char*>(slot(live[0]) + 1)[c.recordSize - 1] ^= 0xff;
   auto* record = reinterpret_cast<unsigned char*>(slot(live[1]) + 1);
   std::memset(record + sizeof(Routing::Multicast::Fib::IpGenRouteKey), 0xff, sizeof(Pakto::IntfId));
   slot(live[1])->check = Pond::recordCheck(slot(live[1])->seq, record, c.recordSize);
   ::munmap(base, c.queueOffset);
   const Outcome damaged = runTool("table dump " + segment);
   EXPECT_EQ(damaged.status, 0) << damaged.err;
   EXPECT_TRUE(has(damaged.out, "\n  slot " + std::to_string(live[0]) + ": corrupt\n"));
   EXPECT_TRUE(has(damaged.out, ") damaged record 0x"));
}

// ---- an allocator's table ------------------------------------------------------

TEST(ToolBitmap, ShowsHeldIndexesAndWaitingKeysOfAnotherProcess) {
   Pond::Options options;
   options.prefix = "mcastfib-tooltest-" + std::to_string(::getpid());
   const std::string path = "bitmapper/tooltest";
   const std::string segment = Pond::segmentName(options.prefix, path);
   int ready[2];
   ASSERT_EQ(::pipe(ready), 0);
   const pid_t pid = ::fork();
   if (pid == 0) {
      using namespace BitMapper;
      Loop::EpollLoop loop;
      auto config = configFactory(2, true);
      config->bitMapMinIndexIs(10);
      auto pond = pondStatusFactory(Gant::Name("bitmap"));
      pond->openAllocatorTable(path, &loop, options);
      auto sm = bitMapperSmFactory(config, BitMapper::statusFactory(Gant::Name("status")), pond);
      auto key = [](const char* intf, const char* addr) {
         return BitMapperKey(Pakto::IntfId(intf), Gant::fromText<Pakto::IpGenAddr>(addr));
      };
      for (auto k : {key("Ethernet1", "10.0.0.1"), key("Ethernet2", "10.0.0.2"), key("Ethernet1", "10.0.0.1"),
                     key("Vlan100", "2001:db8::1"), key("Vlan100", "2001:db8::1")}) {
         config->allocRequestKeyIs(k);
         config->allocRequestCountInc();
      }
      (void)!::write(ready[1], "r", 1);
      loop.runUntil([] { return false; }, 60);
      ::_exit(0);
   }
   WriterCleanup cleanup{pid, segment};
   char started;
   ASSERT_EQ(::read(ready[0], &started, 1), 1);
   const Outcome r = runTool("bitmap --prefix " + options.prefix + " " + path);
   EXPECT_EQ(r.status, 0) << r.err;
   EXPECT_EQ(r.out, "table bitmapper/tooltest (" + segment + "), writer alive\n"
                    "2 held, 1 waiting\n"
                    "index  key                                     holders  new\n"
                    "10     Ethernet1 10.0.0.1                      2        no\n"
                    "11     Ethernet2 10.0.0.2                      1        yes\n"
                    "waiting\n"
                    "       Vlan100 2001:db8::1                     2\n");
}

// ---- the MFIB across processes -----------------------------------------------

TEST(ToolMfib, ProduceShowAndWatchAcrossProcesses) {
   const std::string prefix = "--prefix mcastfib-tooltest-" + std::to_string(::getpid());
   Piped pim("produce --app pim --priority 2 " + prefix);
   pim.write("add (10.0.0.1,239.1.1.1) iif Ethernet1 oif Ethernet2 Ethernet3\n"
             "add (*,ff3e::1) iif Vlan10 vrf red flags valid,toCpu\n"
             "bogus\n"
             "commit\n");
   EXPECT_TRUE(has(pim.readUntil("committed"), "line 3: unknown change 'bogus': add, del or commit\n"
                                               "committed 2 changes\n"));
   const std::string shown = "ipv4 vrf default: 1 routes, producers pim\n"
                             "  (10.0.0.1,239.1.1.1)           pim        2    Ethernet1(accept) "
                             "Ethernet2(forward,notify) Ethernet3(forward,notify)  valid\n"
                             "ipv6 vrf red: 1 routes, producers pim\n"
                             "  (*,ff3e::1)                    pim        2    Vlan10(accept)  valid,toCpu\n";
   Outcome show = runTool("show " + prefix);
   EXPECT_EQ(show.status, 0) << show.err;
   EXPECT_EQ(show.out, shown);
   EXPECT_EQ(runTool("show --af ipv6 --vrf red " + prefix).out, shown.substr(shown.find("ipv6")));

   Piped watch("watch --af ipv4 " + prefix);
   watch.readUntil("Ethernet3(forward,notify)  valid\n");
   pim.write("add (10.0.0.1,239.1.1.1) iif Ethernet1 oif Ethernet2\nadd (10.0.0.2,239.1.1.1) iif Ethernet4\ncommit\n");
   const std::string changed = watch.readUntil("Ethernet4(accept)  valid\n");
   EXPECT_TRUE(has(changed, "update default  (10.0.0.1,239.1.1.1)           pim        2    Ethernet1(accept) "
                            "Ethernet2(forward,notify)  valid\n"));
   EXPECT_TRUE(has(changed, "add    default  (10.0.0.2,239.1.1.1)           pim        2    Ethernet4(accept)  valid\n"));
   pim.write("del (10.0.0.1,239.1.1.1)\ncommit\n");
   EXPECT_TRUE(has(watch.readUntil("delete"), "delete default  (10.0.0.1,239.1.1.1)\n"));
   EXPECT_EQ(pim.endInput(), 0) << "the end of its input withdraws it";
   EXPECT_TRUE(has(watch.readUntil("left"), "delete default  (10.0.0.2,239.1.1.1)\nproducer pim left\n"));
   EXPECT_EQ(runTool("show " + prefix).out, "");
}

} // namespace
