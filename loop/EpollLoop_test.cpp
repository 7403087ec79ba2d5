#include "loop/EpollLoop.h"

#include "gant/Error.h"
#include "sys/Calls.h"
#include "sys/Fd.h"

#include "gant/testlib/Thrown.h"

#include <gtest/gtest.h>

#include <sys/eventfd.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace {

Sys::Fd makeEventFd() {
   return Sys::Fd(static_cast<int>(
       Sys::check(Sys::calls().eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")));
}

void signal(const Sys::Fd& fd) {
   uint64_t one = 1;
   Sys::check(Sys::calls().write(fd.get(), &one, sizeof one), "write");
}

void drain(const Sys::Fd& fd) {
   uint64_t count;
   Sys::check(Sys::calls().read(fd.get(), &count, sizeof count), "read");
}

// Sees what the real epoll_wait returned, to know two events came in one batch.
struct EpollWaitSpy : Sys::Calls {
   Sys::Result epoll_wait(int epfd, epoll_event* events, int maxEvents, int timeoutMs) override {
      Sys::Result r = Sys::Calls::epoll_wait(epfd, events, maxEvents, timeoutMs);
      batches.push_back(r.value);
      return r;
   }
   std::vector<long> batches;
};

TEST(LoopEpollLoop, ReadableDescriptorRunsItsWatch) {
   Loop::EpollLoop loop;
   Sys::Fd efd = makeEventFd();
   int calls = 0;
   Loop::Watch watch = loop.watchReadable(efd.get(), [&] {
      ++calls;
      drain(efd);
   });
   EXPECT_EQ(loop.runOnce(0), 0); // nothing to read yet
   signal(efd);
   EXPECT_TRUE(loop.runUntil([&] { return calls == 1; }, 5.0));
   EXPECT_EQ(loop.runOnce(0), 0); // drained: level-triggered, no repeat
}

TEST(LoopEpollLoop, WatchRemovedByAnotherCallbackOfTheSameBatchIsNotCalled) {
   Loop::EpollLoop loop;
   Sys::Fd first = makeEventFd(), second = makeEventFd();
   std::optional<Loop::Watch> a, b;
   std::vector<std::string> called;
   a = loop.watchReadable(first.get(), [&] {
      called.push_back("a");
      b.reset();
   });
   b = loop.watchReadable(second.get(), [&] {
      called.push_back("b");
      a.reset();
   });
   signal(first);
   signal(second);
   EpollWaitSpy spy;
   Sys::ScopedCalls scope(spy);
   EXPECT_EQ(loop.runOnce(0), 1);
   EXPECT_EQ(spy.batches, std::vector<long>{2}); // both were in that batch
   ASSERT_EQ(called.size(), 1u);
   // Both descriptors stay readable; only the survivor is ever called.
   EXPECT_EQ(loop.runOnce(0), 1);
   EXPECT_EQ(called, (std::vector<std::string>{called[0], called[0]}));
}

TEST(LoopEpollLoop, WatchDestroyedInsideItsOwnCallback) {
   Loop::EpollLoop loop;
   Sys::Fd efd = makeEventFd();
   std::optional<Loop::Watch> watch;
   std::string capturedState = "kept alive by the dispatcher";
   std::string seen;
   watch = loop.watchReadable(efd.get(), [&, capturedState] {
      watch.reset();
      seen = capturedState; // the closure is still valid after its Watch went
   });
   signal(efd);
   EXPECT_EQ(loop.runOnce(0), 1);
   EXPECT_EQ(seen, "kept alive by the dispatcher");
   EXPECT_EQ(loop.runOnce(0), 0); // still readable, but no longer watched

   // The descriptor can be watched again once its watch is gone.
   Loop::Watch again = loop.watchReadable(efd.get(), [&] { drain(efd); });
   EXPECT_EQ(loop.runOnce(0), 1);
}

TEST(LoopEpollLoop, OneWatchPerDescriptor) {
   Loop::EpollLoop loop;
   Sys::Fd efd = makeEventFd();
   Loop::Watch watch = loop.watchReadable(efd.get(), [] {});
   auto e = Gant::Test::caught<Gant::ErrnoError>([&] { Loop::Watch twice = loop.watchReadable(efd.get(), [] {}); });
   ASSERT_TRUE(e) << "second watch accepted";
   EXPECT_STREQ(e->what(), "epoll_ctl(EPOLL_CTL_ADD)");
   EXPECT_EQ(e->errorNo(), EEXIST);
}

TEST(LoopEpollLoop, StaleWatchOfAClosedDescriptorLeavesItsSuccessorAlone) {
   Loop::EpollLoop loop;
   std::optional<Sys::Fd> old = makeEventFd();
   int number = old->get();
   Loop::Watch stale = loop.watchReadable(number, [] {});
   old.reset(); // closed while watched: epoll forgets it by itself
   Sys::Fd reused = makeEventFd();
   ASSERT_EQ(reused.get(), number); // the lowest free number comes back
   int calls = 0;
   Loop::Watch current = loop.watchReadable(reused.get(), [&] {
      ++calls;
      drain(reused);
   });
   stale.reset(); // must not take the new registration out of epoll
   signal(reused);
   EXPECT_EQ(loop.runOnce(0), 1);
   EXPECT_EQ(calls, 1);
}

// Their order is the timer queue's; here, that the loop waits for the
// deadline and that a timer may go at any moment, its own callback included.
TEST(LoopEpollLoop, TimersWaitForTheirDeadlineAndMayGoAtAnyMoment) {
   Loop::EpollLoop loop;
   std::vector<std::string> fired;
   const double start = loop.now();
   Loop::Timer later = loop.timerAfter(0.030, [&] { fired.push_back("later"); });
   Loop::Timer cancelled = loop.timerAfter(0.005, [&] { fired.push_back("cancelled"); });
   std::optional<Loop::Timer> destroyed = loop.timerAfter(0.005, [&] { fired.push_back("destroyed"); });
   Loop::Timer first = loop.timerAfter(0.010, [&] { fired.push_back("first"); });
   cancelled.cancel();
   EXPECT_FALSE(cancelled.armed());
   destroyed.reset();
   EXPECT_TRUE(loop.runUntil([&] { return fired.size() == 2; }, 5.0));
   EXPECT_EQ(fired, (std::vector<std::string>{"first", "later"}));
   EXPECT_GE(loop.now() - start, 0.030) << "none ran before its deadline";
   EXPECT_FALSE(later.armed());
   cancelled.rearm(0); // a cancelled timer keeps its callback
   EXPECT_EQ(loop.runOnce(0), 1);
   EXPECT_EQ(fired.back(), "cancelled");

   int ticks = 0;
   std::optional<Loop::Timer> periodic;
   periodic = loop.timerAfter(0.001, [&] {
      if (++ticks < 3) return periodic->rearm(0.001);
      periodic.reset();
      loop.stop();
   });
   loop.run();
   EXPECT_EQ(ticks, 3);
   EXPECT_FALSE(periodic);
}

TEST(LoopEpollLoop, RunUntilTimesOutHonestly) {
   Loop::EpollLoop loop;
   double start = loop.now();
   EXPECT_FALSE(loop.runUntil([] { return false; }, 0.050));
   EXPECT_GE(loop.now() - start, 0.050);

   // A predicate already true costs no wait; a timeout of zero checks once.
   EXPECT_TRUE(loop.runUntil([] { return true; }, 0));
   bool done = false;
   Loop::Timer t = loop.timerAfter(0, [&] { done = true; });
   EXPECT_FALSE(loop.runUntil([&] { return done; }, 0));
   EXPECT_TRUE(loop.runUntil([&] { return done; }, 5.0));
}

struct NoDescriptorsLeft : Sys::Calls {
   Sys::Result epoll_create1(int) override { return {-1, EMFILE}; }
};

TEST(LoopEpollLoop, CreationFailureNamesTheCall) {
   NoDescriptorsLeft fake;
   Sys::ScopedCalls scope(fake);
   auto e = Gant::Test::caught<Gant::ErrnoError>([] { Loop::EpollLoop loop; });
   ASSERT_TRUE(e) << "loop created";
   EXPECT_STREQ(e->what(), "epoll_create1");
   EXPECT_EQ(e->errorNo(), EMFILE);
}

TEST(LoopEpollLoopDeathTest, LoopMustOutliveItsWatchesAndTimers) {
   Sys::Fd efd = makeEventFd();
   auto* loop = new Loop::EpollLoop;
   {
      Loop::Watch kept = loop->watchReadable(efd.get(), [] {});
      EXPECT_DEATH(delete loop, "Assertion failed: watches_.empty\\(\\)");
   }
   Loop::Timer kept = loop->timerAfter(1, [] {});
   EXPECT_DEATH(delete loop, "Assertion failed: timers_.empty\\(\\)");
   kept.reset();
   delete loop;
}

} // namespace
