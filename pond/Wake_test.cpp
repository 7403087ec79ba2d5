// The wake-up channel's handshake from the reader's side, against a
// stand-in writer on a real Unix socket: what the reader accepts as its wake
// pipe, and what it refuses.
#include "loop/EpollLoop.h"
#include "pond/Wake.h"
#include "pond/testlib/Fixture.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace {

using Pond::WakeClient;

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

TEST(PondWake, AReaderGoneBetweenItsAckAndTheWakeCannotHurtTheWriter) {
   Loop::EpollLoop loop;
   const std::string path = "/dev/shm/mcastfib-wake-test-server-" + std::to_string(::getpid());
   uint32_t changes = 0;
   Pond::WakeServer server(path, 0600, loop, [&] { return changes; });
   const auto change = [&] { ++changes, server.changed(), settle(loop); };
   {
      int wakes = 0;
      WakeClient client(path, loop, [&] { ++wakes; }, [] {});
      const auto ack = [&] { return client.ack(changes), settle(loop), *server.armedCount(); };
      ASSERT_TRUE(client.connect());
      settle(loop);
      ASSERT_EQ(ack(), 1u);
      change();
      ASSERT_EQ(wakes, 1) << "woken through its pipe";
      ASSERT_EQ(ack(), 1u);
   }
   // The reader's ends are closed, and the writer has not yet heard.
   change(); // no SIGPIPE: the test process lives on
   EXPECT_EQ(server.readers(), 0u);
}

} // namespace
