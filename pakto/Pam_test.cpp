// Pams on a real loop and sockets in a real network namespace.
#include "pakto/PamFdSm.h"
#include "pakto/Socket.h"

#include "loop/EpollLoop.h"
#include "sys/Calls.h"
#include "sys/Fd.h"

#include <gtest/gtest.h>

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace {

// A pam reading a pipe: one byte, one packet.
struct PipePam : Pakto::Pam {
   explicit PipePam(int fd) : Pakto::Pam(Gant::Name("pipe")), fd(fd) {}
   void doGetRxPkt() override {
      Gant::Ptr<Pakto::Pkt> p = Pakto::globalPktManager().newPkt();
      p->reserve(1);
      if (::read(fd, p->data(), 1) == 1) rxPktIs(p);
   }
   int fd;
};

TEST(Pam, TheDescriptorReactorReadsOrLeavesItToTheReviewer) {
   Loop::EpollLoop loop;
   Pakto::eventLoopIs(&loop);
   int fds[2];
   ASSERT_EQ(::pipe(fds), 0);
   Gant::Ptr<PipePam> pam = Gant::make<PipePam>(fds[0]);
   std::string heard;
   struct Heard : Pakto::Pam::Reactor {
      Heard(Pakto::Pam* p, std::string& s) : Pakto::Pam::Reactor(p), s(s) {}
      void onRxPkt() override {
         if (notifier()->rxPkt()) s += char(notifier()->rxPkt()->data()[0]);
      }
      std::string& s;
   } reactor(pam.ptr(), heard);
   {
      Pakto::PamFdSm fdSm(*pam, fds[0]);
      ASSERT_EQ(::write(fds[1], "ab", 2), 2);
      loop.runUntil([&] { return heard.size() == 2; }, 2);
      EXPECT_EQ(heard, "ab") << "unreviewed: one packet per readable event";
      EXPECT_EQ(pam->readableCount(), 2u);
      // Reviewed: the reactor only counts; the reviewer reads.
      pam->reviewedOnReadableIs(true);
      ASSERT_EQ(::write(fds[1], "c", 1), 1);
      loop.runUntil([&] { return pam->readableCount() == 3; }, 2);
      EXPECT_EQ(heard, "ab");
      EXPECT_TRUE(pam->nextRxPkt());
      EXPECT_EQ(heard, "abc");
   }
   Pakto::eventLoopIs(nullptr);
   ::close(fds[0]), ::close(fds[1]);
}

ino_t inodeOf(const char* path) {
   struct stat st;
   return ::stat(path, &st) == 0 ? st.st_ino : 0;
}

TEST(PaktoSocket, OpensInsideTheNamedNamespaceAndComesBack) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs root to create a network namespace";
   const std::string ns = "mcastfib-pakto-" + std::to_string(::getpid());
   ASSERT_EQ(std::system(("ip netns add " + ns).c_str()), 0);
   const ino_t home = inodeOf("/proc/thread-self/ns/net");
   Sys::Result r = Pakto::openSocket(Pakto::NamespaceName(ns), AF_INET, SOCK_DGRAM, 0);
   ASSERT_TRUE(r.ok()) << r.err;
   Sys::Fd sock(int(r.value));
   // The socket's own namespace is the named one; the thread is back home.
   Sys::Fd sockNs(::ioctl(sock.get(), SIOCGSKNS));
   struct stat st;
   ASSERT_EQ(::fstat(sockNs.get(), &st), 0);
   EXPECT_EQ(st.st_ino, inodeOf((std::string(Pakto::netnsDir) + "/" + ns).c_str()));
   EXPECT_NE(st.st_ino, home);
   EXPECT_EQ(inodeOf("/proc/thread-self/ns/net"), home);

   // A namespace that does not exist, or a refused socket: the errno, home.
   r = Pakto::openSocket(Pakto::NamespaceName("mcastfib-no-such-ns"), AF_INET, SOCK_DGRAM, 0);
   EXPECT_EQ(r.err, ENOENT);
   struct NoSocket : Sys::Calls {
      Sys::Result socket(int, int, int) override { return {-1, EMFILE}; }
   } noSocket;
   {
      Sys::ScopedCalls scoped(noSocket);
      EXPECT_EQ(Pakto::openSocket(Pakto::NamespaceName(ns), AF_INET, SOCK_DGRAM, 0).err, EMFILE);
   }
   EXPECT_EQ(inodeOf("/proc/thread-self/ns/net"), home);
   EXPECT_EQ(std::system(("ip netns del " + ns).c_str()), 0);
}

} // namespace
