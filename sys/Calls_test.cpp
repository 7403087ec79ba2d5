#include "sys/Calls.h"

#include "sys/Fd.h"

#include <gtest/gtest.h>

#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

namespace {

TEST(SysCalls, RealCallsReportValueOrErrno) {
   EXPECT_EQ(Sys::calls().close(-1), (Sys::Result{-1, EBADF}));

   Sys::Result efd = Sys::calls().eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
   ASSERT_TRUE(efd.ok());
   Sys::Fd fd(static_cast<int>(efd.value));
   uint64_t one = 1;
   EXPECT_EQ(Sys::calls().write(fd.get(), &one, sizeof one), (Sys::Result{8, 0}));
   uint64_t got = 0;
   EXPECT_EQ(Sys::calls().read(fd.get(), &got, sizeof got), (Sys::Result{8, 0}));
   EXPECT_EQ(got, 1u);
   // Empty and non-blocking: the errno comes back in the result, not in errno.
   EXPECT_EQ(Sys::calls().read(fd.get(), &got, sizeof got), (Sys::Result{-1, EAGAIN}));
   // mmap's failure address is reported as -1 like the others.
   EXPECT_EQ(Sys::calls().mmap(nullptr, 4096, PROT_READ, MAP_SHARED, -1, 0),
             (Sys::Result{-1, EBADF}));
}

struct FixedPid : Sys::Calls {
   long pid;
   explicit FixedPid(long p) : pid(p) {}
   Sys::Result getpid() override { return {pid, 0}; }
};

TEST(SysCalls, ScopedCallsInstallsAndRestoresNested) {
   FixedPid outer(41), inner(42);
   {
      Sys::ScopedCalls outerScope(outer);
      EXPECT_EQ(Sys::calls().getpid().value, 41);
      {
         Sys::ScopedCalls innerScope(inner);
         EXPECT_EQ(Sys::calls().getpid().value, 42);
      }
      EXPECT_EQ(Sys::calls().getpid().value, 41);
      // Calls the fake does not override are the real ones.
      EXPECT_EQ(Sys::calls().close(-1), (Sys::Result{-1, EBADF}));
   }
   EXPECT_EQ(Sys::calls().getpid().value, static_cast<long>(::getpid()));
}

TEST(SysCalls, RetryEintrRetriesOnlyInterruptions) {
   int attempts = 0;
   auto interruptedTwice = [&]() -> long {
      if (++attempts <= 2) {
         errno = EINTR;
         return -1;
      }
      return 7;
   };
   EXPECT_EQ(Sys::retryEintr(interruptedTwice), (Sys::Result{7, 0}));
   EXPECT_EQ(attempts, 3);

   attempts = 0;
   auto interruptedThenRefused = [&]() -> long {
      errno = ++attempts == 1 ? EINTR : EACCES;
      return -1;
   };
   EXPECT_EQ(Sys::retryEintr(interruptedThenRefused), (Sys::Result{-1, EACCES}));
   EXPECT_EQ(attempts, 2);

   // once() hands the interruption back to the caller.
   attempts = 0;
   EXPECT_EQ(Sys::once(interruptedTwice), (Sys::Result{-1, EINTR}));
   EXPECT_EQ(attempts, 1);
}

struct CloseRecorder : Sys::Calls {
   Sys::Result close(int fd) override {
      closed.push_back(fd);
      return {0, 0};
   }
   std::vector<int> closed;
};

TEST(SysFd, ClosesExactlyOnceThroughTheSeam) {
   CloseRecorder recorder;
   {
      Sys::ScopedCalls scope(recorder);
      Sys::Fd a(100);
      Sys::Fd b(std::move(a));
      EXPECT_FALSE(a.valid());
      EXPECT_EQ(b.get(), 100);
      Sys::Fd c(200);
      c = std::move(b); // closes 200, takes 100
      EXPECT_EQ(recorder.closed, std::vector<int>{200});
      Sys::Fd d(300);
      EXPECT_EQ(d.release(), 300); // no longer owned: never closed
      c.reset(400);                // closes 100
      Sys::Fd& same = c;
      c = std::move(same); // self-move keeps 400
      EXPECT_EQ(c.get(), 400);
   }
   EXPECT_EQ(recorder.closed, (std::vector<int>{200, 100, 400}));
}

} // namespace
