// The writer's wake socket under abuse, with real sockets and processes: more
// connections than it takes, no descriptors left, something else at its
// path, and its socket removed under it.
#include "flashlog/Capture.h"
#include "loop/EpollLoop.h"
#include "pond/Wake.h"
#include "sys/Calls.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using Pond::WakeClient;
using Pond::WakeServer;

constexpr uid_t kNobody = 65534;

std::string testPath(const std::string& what) {
   return "/dev/shm/mcastfib-wake-" + what + "-" + std::to_string(::getpid());
}

// A reader's wake client and what it was told.
struct Reader {
   int wakes = 0, gone = 0;
   std::vector<std::string> refusals;
   WakeClient client;
   Reader(const std::string& path, Loop::EventLoop& loop)
       : client(path, loop, [this] { ++wakes; }, [this] { ++gone; },
                [this](const std::string& why) { refusals.push_back(why); }) {}
};

int rawConnect(const std::string& path) {
   int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
   sockaddr_un a{};
   a.sun_family = AF_UNIX;
   std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
   EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
   return fd;
}

int bindSocketAt(const std::string& path) {
   int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   sockaddr_un a{};
   a.sun_family = AF_UNIX;
   std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
   EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
   EXPECT_EQ(::listen(fd, 4), 0);
   return fd;
}

TEST(PondWakeServer, ReadersBeyondTheCapAreToldSoAndClosed) {
   Loop::EpollLoop loop;
   const std::string path = testPath("cap");
   uint32_t changes = 0;
   WakeServer server(path, 0600, loop, [&] { return changes; }, 8);
   // Twelve readers that ack at once, before the writer has even accepted
   // them, and a flood of bare connections behind them.
   std::vector<std::unique_ptr<Reader>> readers;
   for (int i = 0; i < 12; ++i) {
      readers.push_back(std::make_unique<Reader>(path, loop));
      ASSERT_TRUE(readers.back()->client.connect());
      readers.back()->client.ack(changes);
   }
   std::vector<int> flood;
   for (int i = 0; i < 40; ++i) flood.push_back(rawConnect(path));
   auto refused = [&] {
      int n = 0;
      for (auto& r : readers) n += !r->refusals.empty();
      return n;
   };
   loop.runUntil([&] { return refused() == 4 && *server.armedCount() == 8; }, 5);
   EXPECT_EQ(server.readers(), 8u);
   for (std::size_t i = 0; i < readers.size(); ++i) {
      const bool over = i >= 8;
      EXPECT_EQ(readers[i]->client.connected(), !over) << i;
      EXPECT_EQ(readers[i]->refusals, over ? std::vector<std::string>{"refused: too many readers"}
                                           : std::vector<std::string>{})
          << i;
      EXPECT_EQ(readers[i]->gone, 0) << i << ": refused is not gone";
   }
   for (int fd : flood) {
      char buf[64];
      ssize_t n = ::recv(fd, buf, sizeof buf, 0);
      EXPECT_EQ(std::string(buf, n > 0 ? n : 0), "refused: too many readers");
      EXPECT_EQ(::recv(fd, buf, sizeof buf, 0), 0) << "and then closed";
      ::close(fd);
   }

   ++changes;
   server.changed();
   loop.runUntil([&] { return readers[7]->wakes == 1; }, 5);
   for (std::size_t i = 0; i < readers.size(); ++i) EXPECT_EQ(readers[i]->wakes, i < 8 ? 1 : 0) << i;

   // A place freed is a place for one that was refused.
   readers[0]->client.disconnect();
   loop.runUntil([&] { return server.readers() == 7; }, 5);
   ASSERT_TRUE(readers[8]->client.connect());
   readers[8]->client.ack(changes);
   loop.runUntil([&] { return *server.armedCount() == 1; }, 5);
   ++changes;
   server.changed();
   EXPECT_TRUE(loop.runUntil([&] { return readers[8]->wakes == 1; }, 5));
   EXPECT_EQ(readers[8]->refusals.size(), 1u);
   EXPECT_EQ(readers[0]->gone, 0) << "disconnect() is not the writer's death";
}

// Counts the writer's accepts.
// Counts accepts, and answers them as a process out of descriptors does
// while `full` (filling the real table would also starve the sanitizers'
// own checks, which need descriptors).
struct CountingCalls : Sys::Calls {
   int accepts = 0;
   bool full = true;
   Sys::Result accept4(int fd, sockaddr* addr, socklen_t* len, int flags) override {
      ++accepts;
      if (full) return {-1, EMFILE};
      return Sys::Calls::accept4(fd, addr, len, flags);
   }
};

struct OutOfDescriptorsResult {
   int acceptsWhileFull = 0, readersWhileFull = 0, readersAfter = 0, armedAfter = 0, pauseTraces = 0;
};

// The writer's process: out of descriptors, lets readers queue up,
// then frees descriptors and wakes them. Waits for `go` before each step.
[[noreturn]] void writerOutOfDescriptors(const std::string& path, int ready, int go, int result) {
   Loop::EpollLoop loop;
   uint32_t changes = 0;
   WakeServer server(path, 0600, loop, [&] { return changes; });
   CountingCalls counting;
   Sys::ScopedCalls scope(counting);
   Flashlog::Capture capture("Pond=1");
   char c = 'r';
   (void)!::write(ready, &c, 1);
   (void)!::read(go, &c, 1); // the readers have connected

   OutOfDescriptorsResult out;
   const double start = loop.now();
   while (loop.now() - start < 0.5) loop.runOnce(0.05);
   out.acceptsWhileFull = counting.accepts;
   out.readersWhileFull = static_cast<int>(server.readers());
   counting.full = false;
   loop.runUntil([&] { return *server.armedCount() == 3; }, 5);
   out.readersAfter = static_cast<int>(server.readers());
   out.armedAfter = static_cast<int>(*server.armedCount());
   for (const std::string& line : capture.lines()) out.pauseTraces += line.starts_with("cannot accept");
   ++changes;
   server.changed();
   (void)!::write(result, &out, sizeof out);
   (void)!::read(go, &c, 1); // the readers have checked their writer
   ::_exit(0);
}

TEST(PondWakeServer, OutOfDescriptorsItRestsThenTakesTheWaitingReaders) {
   const std::string path = testPath("emfile");
   int ready[2], go[2], result[2];
   ASSERT_EQ(::pipe(ready), 0);
   ASSERT_EQ(::pipe(go), 0);
   ASSERT_EQ(::pipe(result), 0);
   pid_t writer = ::fork();
   if (writer == 0) writerOutOfDescriptors(path, ready[1], go[0], result[1]);
   ::close(ready[1]);
   ::close(go[0]);
   ::close(result[1]);
   char c;
   ASSERT_EQ(::read(ready[0], &c, 1), 1);

   Loop::EpollLoop loop;
   std::vector<std::unique_ptr<Reader>> readers;
   uid_t uid;
   pid_t pid;
   for (int i = 0; i < 3; ++i) {
      readers.push_back(std::make_unique<Reader>(path, loop));
      EXPECT_FALSE(readers.back()->client.peerCredentials(uid, pid)) << "not connected";
      ASSERT_TRUE(readers.back()->client.connect()) << "queued while the writer has no descriptor";
      readers.back()->client.ack(0);
   }
   ASSERT_EQ(::write(go[1], "g", 1), 1);
   OutOfDescriptorsResult out;
   ASSERT_EQ(::read(result[0], &out, sizeof out), static_cast<ssize_t>(sizeof out));
   // Each accept is a run of the listening watch; a spinning writer makes
   // hundreds of thousands in half a second, one resting 0.1 s makes six.
   EXPECT_GE(out.acceptsWhileFull, 1);
   EXPECT_LE(out.acceptsWhileFull, 10);
   EXPECT_EQ(out.readersWhileFull, 0);
   EXPECT_EQ(out.pauseTraces, 1) << "traced once, not at every try";
   EXPECT_EQ(out.readersAfter, 3);
   EXPECT_EQ(out.armedAfter, 3);
   EXPECT_TRUE(loop.runUntil([&] { return readers[0]->wakes + readers[1]->wakes + readers[2]->wakes == 3; }, 5));
   for (auto& r : readers) {
      ASSERT_TRUE(r->client.peerCredentials(uid, pid));
      EXPECT_EQ(pid, writer);
      EXPECT_EQ(uid, ::geteuid());
   }
   ASSERT_EQ(::write(go[1], "d", 1), 1);
   int status = 0;
   ::waitpid(writer, &status, 0);
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
   for (int fd : {ready[0], go[1], result[0]}) ::close(fd);
   ::unlink(path.c_str()); // the writer's process ended without its destructors
}

TEST(PondWakeServer, SomethingElseAtThePathIsReplacedOnlyWhereAllowed) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs root to give files to another uid";
   Loop::EpollLoop loop;
   const std::string path = testPath("impostor");
   // As root, what another uid left is removed; a directory cannot be.
   struct Case {
      const char* what;
      bool replaced;
   };
   for (Case c : {Case{"file", true}, Case{"socket", true}, Case{"directory", false}}) {
      SCOPED_TRACE(c.what);
      int impostor = -1;
      if (c.what == std::string("file")) ::close(::open(path.c_str(), O_CREAT | O_WRONLY, 0600));
      if (c.what == std::string("socket")) impostor = bindSocketAt(path);
      if (c.what == std::string("directory")) ::mkdir(path.c_str(), 0700);
      ASSERT_EQ(::chown(path.c_str(), kNobody, kNobody), 0);
      if (!c.replaced) {
         try {
            WakeServer server(path, 0600, loop, [] { return 0u; });
            ADD_FAILURE() << "took the path";
         } catch (const std::runtime_error& e) {
            EXPECT_NE(std::string(e.what()).find(path), std::string::npos) << e.what();
            EXPECT_NE(std::string(e.what()).find("uid 65534"), std::string::npos) << e.what();
         }
         ::rmdir(path.c_str());
         continue;
      }
      WakeServer server(path, 0600, loop, [] { return 0u; });
      Reader reader(path, loop);
      ASSERT_TRUE(reader.client.connect());
      EXPECT_TRUE(loop.runUntil([&] { return server.readers() == 1; }, 5)) << "the reader reached the writer";
      if (impostor >= 0) {
         EXPECT_LT(::accept4(impostor, nullptr, nullptr, SOCK_NONBLOCK), 0) << "not the impostor";
         ::close(impostor);
      }
   }

   // Not root: a stale socket of our own uid is replaced, another uid's
   // file in a sticky directory (as /dev/shm is) is not.
   char dir[] = "/tmp/mcastfib-wake-XXXXXX";
   ASSERT_NE(::mkdtemp(dir), nullptr);
   ASSERT_EQ(::chmod(dir, 01777), 0);
   const std::string ours = std::string(dir) + "/ours", taken = std::string(dir) + "/taken";
   ::close(bindSocketAt(ours));
   ASSERT_EQ(::chown(ours.c_str(), kNobody, kNobody), 0);
   ::close(::open(taken.c_str(), O_CREAT | O_WRONLY, 0644));
   pid_t child = ::fork();
   if (child == 0) {
      int rc = 0;
      if (::setresgid(kNobody, kNobody, kNobody) != 0 || ::setresuid(kNobody, kNobody, kNobody) != 0) ::_exit(9);
      Loop::EpollLoop childLoop;
      try {
         WakeServer server(ours, 0600, childLoop, [] { return 0u; });
      } catch (const std::exception&) {
         rc |= 1;
      }
      try {
         WakeServer server(taken, 0600, childLoop, [] { return 0u; });
         rc |= 2;
      } catch (const std::runtime_error& e) {
         const std::string what = e.what();
         if (what.find(taken) == std::string::npos || what.find("uid 0 ") == std::string::npos) rc |= 4;
      }
      ::_exit(rc);
   }
   int status = 0;
   ::waitpid(child, &status, 0);
   EXPECT_TRUE(WIFEXITED(status));
   EXPECT_EQ(WEXITSTATUS(status), 0) << "1 own stale socket kept, 2 another's file taken, 4 unclear text";
   struct stat st{};
   EXPECT_EQ(::lstat(taken.c_str(), &st), 0) << "left where it was";
   ::unlink(ours.c_str());
   ::unlink(taken.c_str());
   ::rmdir(dir);
}

TEST(PondWakeServer, ASocketRemovedOrReplacedUnderItsWriterIsBoundAgain) {
   Loop::EpollLoop loop;
   const std::string path = testPath("removed");
   uint32_t changes = 0;
   WakeServer server(path, 0600, loop, [&] { return changes; });
   Reader first(path, loop);
   ASSERT_TRUE(first.client.connect());
   for (const char* how : {"removed", "replaced by a file"}) {
      SCOPED_TRACE(how);
      ASSERT_EQ(::unlink(path.c_str()), 0);
      if (how == std::string("replaced by a file")) ::close(::open(path.c_str(), O_CREAT | O_WRONLY, 0600));
      Reader later(path, loop);
      EXPECT_FALSE(later.client.connect());
      ASSERT_TRUE(loop.runUntil([&] { return later.client.connect(); }, 2 * WakeServer::kPathCheckSeconds + 1));
      first.client.ack(changes);
      later.client.ack(changes);
      loop.runUntil([&] { return *server.armedCount() == 2; }, 5);
      ++changes;
      server.changed();
      EXPECT_TRUE(loop.runUntil([&] { return later.wakes == 1; }, 5));
      EXPECT_TRUE(first.client.connected()) << "a reader of the old socket stays";
      later.client.disconnect();
      loop.runUntil([&] { return server.readers() == 1; }, 5);
   }
   EXPECT_EQ(first.wakes, 2);
}

TEST(PondWakeServer, AGoingWriterRemovesOnlyItsOwnSocket) {
   Loop::EpollLoop loop;
   const std::string path = testPath("successor");
   {
      WakeServer server(path, 0600, loop, [] { return 0u; });
      ASSERT_EQ(::unlink(path.c_str()), 0);
      ::close(bindSocketAt(path)); // a successor's, before our next check
   }
   struct stat st{};
   EXPECT_EQ(::lstat(path.c_str(), &st), 0);
   ::unlink(path.c_str());
   {
      WakeServer server(path, 0600, loop, [] { return 0u; });
   }
   EXPECT_NE(::lstat(path.c_str(), &st), 0) << "its own socket goes with it";
}

} // namespace
