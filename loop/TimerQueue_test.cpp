#include "loop/TimerQueue.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(LoopTimerQueue, FiresDueTimersByDeadlineThenArmingOrder) {
   Loop::TimerQueue q;
   std::vector<std::string> fired;
   auto timer = [&](std::string name) {
      return q.add([&fired, name] { fired.push_back(name); });
   };
   uint64_t late = timer("late"), tieA = timer("tieA"), early = timer("early"),
            tieB = timer("tieB"), future = timer("future");
   uint64_t again = 0;
   again = q.add([&] {
      fired.push_back("again");
      q.arm(again, 0.0); // due at once, but not in this call
   });
   q.arm(late, 3.0);
   q.arm(tieB, 2.0); // armed before tieA: runs first of the two
   q.arm(tieA, 2.0);
   q.arm(early, 1.0);
   q.arm(future, 10.0);
   q.arm(again, 2.5);
   EXPECT_EQ(q.nextDeadline(), 1.0);

   EXPECT_EQ(q.fireDue(0.999), 0);
   EXPECT_EQ(q.fireDue(3.0), 5); // a deadline equal to now is due
   EXPECT_EQ(fired, (std::vector<std::string>{"early", "tieB", "tieA", "again", "late"}));
   EXPECT_FALSE(q.armed(late));
   EXPECT_EQ(q.fireDue(3.0), 1) << "the timer armed while firing, in the next call";
   EXPECT_TRUE(q.armed(again));
   q.cancel(again);
   EXPECT_TRUE(q.armed(future));
   EXPECT_EQ(q.nextDeadline(), 10.0);
}

TEST(LoopTimerQueue, CancelRearmAndDropFromCallbacksOfTheSameBatch) {
   Loop::TimerQueue q;
   std::vector<std::string> fired;
   uint64_t victim = q.add([&] { fired.push_back("victim"); });
   uint64_t moved = q.add([&] { fired.push_back("moved"); });
   uint64_t cancelled = q.add([&] { fired.push_back("cancelled"); });
   uint64_t self = 0;
   self = q.add([&] {
      fired.push_back("self");
      q.drop(self); // its own function must survive until it returns
      fired.push_back("self still running");
   });
   uint64_t killer = q.add([&] {
      fired.push_back("killer");
      q.drop(victim);
      q.arm(moved, 5.0);
      q.cancel(cancelled);
   });
   q.arm(killer, 1.0);
   q.arm(victim, 1.5);
   q.arm(moved, 1.5);
   q.arm(cancelled, 1.5);
   q.arm(self, 1.7);

   EXPECT_EQ(q.fireDue(2.0), 2);
   EXPECT_EQ(fired, (std::vector<std::string>{"killer", "self", "self still running"}));
   EXPECT_FALSE(q.armed(cancelled));
   EXPECT_EQ(q.nextDeadline(), 5.0);
   EXPECT_EQ(q.fireDue(5.0), 1);
   EXPECT_EQ(fired.back(), "moved");
   EXPECT_EQ(q.nextDeadline(), std::nullopt);

   q.drop(killer);
   q.drop(moved);
   q.drop(cancelled);
   EXPECT_TRUE(q.empty());
}

TEST(LoopTimerQueue, ManyRearmsKeepTheHeapBoundedAndTheTimersLive) {
   Loop::TimerQueue q;
   int a = 0, b = 0;
   uint64_t watchdog = q.add([&] { ++a; });
   uint64_t other = q.add([&] { ++b; });
   q.arm(other, 50.0);
   for (int i = 0; i < 10000; ++i) q.arm(watchdog, 100.0 + i);
   EXPECT_LE(q.heapSize(), 2u * 2 + 64 + 1);
   EXPECT_EQ(q.nextDeadline(), 50.0);
   EXPECT_EQ(q.fireDue(20000.0), 2);
   EXPECT_EQ(a, 1);
   EXPECT_EQ(b, 1);
}

} // namespace
