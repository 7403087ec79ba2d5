// The wake channel with real sockets and processes: the reader's handshake
// against a stand-in writer (what it accepts as its wake pipe), and the
// writer's socket under abuse: more connections than it takes, no
// descriptors left, something else at its path, its socket removed under it.
#include "flashlog/Capture.h"
#include "gant/testlib/Thrown.h"
#include "loop/EpollLoop.h"
#include "pond/Wake.h"
#include "pond/testlib/Fixture.h"
#include "sys/Calls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/mman.h>
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
// The one place the refusal's text is checked; the table tests count refusals.
const char* const kRefused = "refused: too many readers";

// A reader's wake client and what it was told.
struct Reader {
   int wakes = 0, gone = 0;
   std::vector<std::string> refusals;
   WakeClient client;
   Reader(const std::string& path, Loop::EventLoop& loop)
       : client(path, loop, [this] { ++wakes; }, [this] { ++gone; },
                [this](const std::string& why) { refusals.push_back(why); }) {}
};

// Each test's loop and socket path, and the count of changes its writer made.
struct PondWakeServer : ::testing::Test {
   Loop::EpollLoop loop;
   const std::string path = "/dev/shm/mcastfib-wake-" +
                            std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + "-" +
                            std::to_string(::getpid());
   uint32_t changes = 0;
   void change(WakeServer& server) {
      ++changes;
      server.changed();
   }
};

void settle(Loop::EpollLoop& loop) {
   for (int i = 0; i < 5; ++i) loop.runOnce(0.01);
}

// Listens where a writer would; hands descriptors to the one reader.
struct StandInWriter {
   std::string path = "/dev/shm/mcastfib-wake-test-" + std::to_string(::getpid());
   int listener = (::unlink(path.c_str()), Pond::Test::unixSocket(path, true));
   int conn = -1;
   ~StandInWriter() {
      if (conn >= 0) ::close(conn);
      ::close(listener);
      ::unlink(path.c_str());
   }
   void accept() { conn = ::accept(listener, nullptr, nullptr); }
   void hand(int fd) { EXPECT_TRUE(Pond::sendDescriptor(conn, fd)); }
};

TEST(PondWake, AReaderTakesOnlyAPipeAsItsWakeChannel) {
   Loop::EpollLoop loop;
   StandInWriter writer;
   int wakes = 0, gone = 0;
   WakeClient client(writer.path, loop, [&] { ++wakes; }, [&] { ++gone; });
   ASSERT_TRUE(client.connect());
   writer.accept();

   // A regular file full of bytes would wake the reader for ever: refused.
   int file = ::memfd_create("not-a-pipe", MFD_CLOEXEC);
   ASSERT_EQ(::write(file, "xxxx", 4), 4);
   ASSERT_EQ(::lseek(file, 0, SEEK_SET), 0);
   writer.hand(file);
   ::close(file);
   settle(loop);
   EXPECT_EQ(wakes, 0) << "handing a descriptor is no wake-up";
   EXPECT_EQ(gone, 0);

   int fds[2];
   ASSERT_EQ(::pipe(fds), 0);
   writer.hand(fds[0]);
   ::close(fds[0]);
   settle(loop);
   EXPECT_EQ(wakes, 0);
   ASSERT_EQ(::write(fds[1], "abc", 3), 3) << "three wakes sent while the reader was busy";
   settle(loop);
   EXPECT_EQ(wakes, 1) << "are one wake-up";
   EXPECT_EQ(client.wakeups(), 1u);

   ::close(fds[1]);
   settle(loop);
   EXPECT_EQ(gone, 1) << "the writer's end of the pipe closing means the writer is gone";
   EXPECT_FALSE(client.connected());
}

TEST_F(PondWakeServer, AReaderGoneBetweenItsAckAndTheWakeCannotHurtTheWriter) {
   WakeServer server(path, 0600, loop, [&] { return changes; });
   {
      Reader reader(path, loop);
      ASSERT_TRUE(reader.client.connect());
      reader.client.ack(changes);
      ASSERT_TRUE(loop.runUntil([&] { return *server.armedCount() == 1; }, 5));
      change(server);
      ASSERT_TRUE(loop.runUntil([&] { return reader.wakes == 1; }, 5)) << "woken through its pipe";
      reader.client.ack(changes);
      ASSERT_TRUE(loop.runUntil([&] { return *server.armedCount() == 1; }, 5));
   }
   // The reader's ends are closed, and the writer has not yet heard.
   change(server); // no SIGPIPE: the test process lives on
   EXPECT_TRUE(loop.runUntil([&] { return server.readers() == 0; }, 5));
}

TEST_F(PondWakeServer, ReadersBeyondTheCapAreToldSoAndClosed) {
   WakeServer server(path, 0600, loop, [&] { return changes; }, 8);
   // Twelve readers that ack at once, before the writer has even accepted
   // them, and a flood of bare connections behind them.
   std::vector<std::unique_ptr<Reader>> readers;
   for (int i = 0; i < 12; ++i) {
      ASSERT_TRUE(readers.emplace_back(std::make_unique<Reader>(path, loop))->client.connect());
      readers.back()->client.ack(changes);
   }
   std::vector<int> flood;
   for (int i = 0; i < 40; ++i) flood.push_back(Pond::Test::unixSocket(path, false));
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
      EXPECT_EQ(readers[i]->refusals, std::vector<std::string>(over, kRefused)) << i;
      EXPECT_EQ(readers[i]->gone, 0) << i << ": refused is not gone";
   }
   for (int fd : flood) {
      char buf[64];
      ssize_t n = ::recv(fd, buf, sizeof buf, 0);
      EXPECT_EQ(std::string(buf, n > 0 ? n : 0), kRefused);
      EXPECT_EQ(::recv(fd, buf, sizeof buf, 0), 0) << "and then closed";
      ::close(fd);
   }

   change(server);
   loop.runUntil([&] { return readers[7]->wakes == 1; }, 5);
   for (std::size_t i = 0; i < readers.size(); ++i) EXPECT_EQ(readers[i]->wakes, i < 8 ? 1 : 0) << i;

   // A place freed is a place for one that was refused.
   readers[0]->client.disconnect();
   loop.runUntil([&] { return server.readers() == 7; }, 5);
   ASSERT_TRUE(readers[8]->client.connect());
   readers[8]->client.ack(changes);
   loop.runUntil([&] { return *server.armedCount() == 1; }, 5);
   change(server);
   EXPECT_TRUE(loop.runUntil([&] { return readers[8]->wakes == 1; }, 5));
   EXPECT_EQ(readers[8]->refusals.size(), 1u);
   EXPECT_EQ(readers[0]->gone, 0) << "disconnect() is not the writer's death";
}

// Answers accepts as a process out of descriptors does while `full`, and
// counts them (filling the real table would also starve the sanitizers'
// own checks, which need descriptors).
struct CountingCalls : Sys::Calls {
   int accepts = 0;
   bool full = true;
   Sys::Result accept4(int fd, sockaddr* addr, socklen_t* len, int flags) override {
      ++accepts;
      return full ? Sys::Result{-1, EMFILE} : Sys::Calls::accept4(fd, addr, len, flags);
   }
};

TEST_F(PondWakeServer, OutOfDescriptorsItRestsThenTakesTheWaitingReaders) {
   WakeServer server(path, 0600, loop, [&] { return changes; });
   CountingCalls counting;
   Sys::ScopedCalls scope(counting);
   Flashlog::Capture capture("Pond=1");
   std::vector<std::unique_ptr<Reader>> readers;
   uid_t uid;
   pid_t pid;
   for (int i = 0; i < 3; ++i) {
      EXPECT_FALSE(readers.emplace_back(std::make_unique<Reader>(path, loop))->client.peerCredentials(uid, pid))
          << "not connected";
      ASSERT_TRUE(readers.back()->client.connect()) << "queued while the writer has no descriptor";
      readers.back()->client.ack(0);
   }
   const double start = loop.now();
   while (loop.now() - start < 0.5) loop.runOnce(0.05);
   // Each accept is a run of the listening watch; a spinning writer makes
   // hundreds of thousands in half a second, one resting 0.1 s makes six.
   EXPECT_GE(counting.accepts, 1);
   EXPECT_LE(counting.accepts, 10);
   EXPECT_EQ(server.readers(), 0u);
   counting.full = false;
   ASSERT_TRUE(loop.runUntil([&] { return *server.armedCount() == 3; }, 5));
   EXPECT_EQ(server.readers(), 3u);
   int pauseTraces = 0;
   for (const std::string& line : capture.lines()) pauseTraces += line.starts_with("cannot accept");
   EXPECT_EQ(pauseTraces, 1) << "traced once, not at every try";
   change(server);
   EXPECT_TRUE(loop.runUntil([&] { return readers[0]->wakes + readers[1]->wakes + readers[2]->wakes == 3; }, 5));
   for (auto& r : readers) {
      ASSERT_TRUE(r->client.peerCredentials(uid, pid));
      EXPECT_EQ(pid, ::getpid());
      EXPECT_EQ(uid, ::geteuid());
   }
}

TEST_F(PondWakeServer, SomethingElseAtThePathIsReplacedOnlyWhereAllowed) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs root to give files to another uid";
   const auto serve = [](const std::string& at, Loop::EpollLoop& l) {
      WakeServer server(at, 0600, l, [] { return 0u; });
   };
   // As root, what another uid left is removed; a directory cannot be.
   for (const std::string what : {"file", "socket", "directory"}) {
      SCOPED_TRACE(what);
      int impostor = -1;
      if (what == "file") ::close(::open(path.c_str(), O_CREAT | O_WRONLY, 0600));
      if (what == "socket") impostor = Pond::Test::unixSocket(path, true);
      if (what == "directory") ::mkdir(path.c_str(), 0700);
      ASSERT_EQ(::chown(path.c_str(), kNobody, kNobody), 0);
      if (what == "directory") {
         const std::string why = Gant::Test::thrown<std::runtime_error>([&] { serve(path, loop); });
         EXPECT_THAT(why, ::testing::AllOf(::testing::HasSubstr(path), ::testing::HasSubstr("uid 65534")));
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
   ::close(Pond::Test::unixSocket(ours, true));
   ASSERT_EQ(::chown(ours.c_str(), kNobody, kNobody), 0);
   ::close(::open(taken.c_str(), O_CREAT | O_WRONLY, 0644));
   pid_t child = ::fork();
   if (child == 0) {
      if (::setresgid(kNobody, kNobody, kNobody) != 0 || ::setresuid(kNobody, kNobody, kNobody) != 0) ::_exit(9);
      Loop::EpollLoop childLoop;
      int rc = Gant::Test::thrown<std::exception>([&] { serve(ours, childLoop); }).empty() ? 0 : 1;
      const std::string why = Gant::Test::thrown<std::runtime_error>([&] { serve(taken, childLoop); });
      rc |= why.empty() ? 2 : why.find(taken) == std::string::npos || why.find("uid 0 ") == std::string::npos ? 4 : 0;
      ::_exit(rc);
   }
   EXPECT_EQ(Pond::Test::exitCode(child), 0) << "1 own stale socket kept, 2 another's file taken, 4 unclear text";
   struct stat st{};
   EXPECT_EQ(::lstat(taken.c_str(), &st), 0) << "left where it was";
   ::unlink(ours.c_str());
   ::unlink(taken.c_str());
   ::rmdir(dir);
}

TEST_F(PondWakeServer, ASocketRemovedOrReplacedUnderItsWriterIsBoundAgainAndOnlyItsOwnRemoved) {
   struct stat st{};
   {
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
         change(server);
         EXPECT_TRUE(loop.runUntil([&] { return later.wakes == 1; }, 5));
         EXPECT_TRUE(first.client.connected()) << "a reader of the old socket stays";
         later.client.disconnect();
         loop.runUntil([&] { return server.readers() == 1; }, 5);
      }
      EXPECT_EQ(first.wakes, 2);
   }
   EXPECT_NE(::lstat(path.c_str(), &st), 0) << "its own socket, bound again, goes with it";
   {
      WakeServer server(path, 0600, loop, [] { return 0u; });
      ASSERT_EQ(::unlink(path.c_str()), 0);
      ::close(Pond::Test::unixSocket(path, true)); // a successor's, before our next check
   }
   EXPECT_EQ(::lstat(path.c_str(), &st), 0) << "a successor's socket stays";
   ::unlink(path.c_str());
}

} // namespace
