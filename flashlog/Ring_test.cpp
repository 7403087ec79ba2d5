#include "flashlog/Ring.h"

#include "flashlog/Capture.h"
#include "flashlog/Flashlog.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace {

TEST(FlashlogRing, KeepsTheNewestLinesOldestFirst) {
   Flashlog::Handle& trace = Flashlog::handle("FlashlogTest.Ring");
   Flashlog::Capture levels("FlashlogTest.Ring=5");
   Flashlog::clearRing();
   EXPECT_TRUE(Flashlog::ring().empty());

   FLASHLOG(trace, 5, "line ", 0);
   FLASHLOG(trace, 3, "line ", 1);
   EXPECT_EQ(Flashlog::ring(), (std::vector<Flashlog::Line>{{"FlashlogTest.Ring", 5, "line 0"},
                                                             {"FlashlogTest.Ring", 3, "line 1"}}));

   const std::size_t extra = 10;
   for (std::size_t i = 2; i < Flashlog::ringLines + extra; ++i) FLASHLOG(trace, 5, "line ", i);
   auto lines = Flashlog::ring();
   ASSERT_EQ(lines.size(), Flashlog::ringLines);
   for (std::size_t i = 0; i < lines.size(); ++i)
      ASSERT_EQ(lines[i].text, "line " + std::to_string(i + extra));

   Flashlog::clearRing();
   EXPECT_TRUE(Flashlog::ring().empty());
}

TEST(FlashlogRing, LongTextIsCutInTheRingOnly) {
   Flashlog::Handle& trace = Flashlog::handle("FlashlogTest.RingLong");
   Flashlog::Capture capture("FlashlogTest.RingLong=9");
   Flashlog::clearRing();
   std::string text(Flashlog::ringTextBytes + 30, 'x');
   text.back() = 'y';
   FLASHLOG(trace, 9, text);
   auto lines = Flashlog::ring();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].text, text.substr(0, Flashlog::ringTextBytes));
   EXPECT_EQ(capture.lines(), std::vector<std::string>{text});
}

// Not a supported use, but two threads tracing must not bring the process
// down (nor trip the sanitizers on anything but the documented garbling).
TEST(FlashlogRing, TwoThreadsTracingDoNotCrash) {
   Flashlog::Handle& trace = Flashlog::handle("FlashlogTest.RingThreads");
   trace.setLevel(9);
   Flashlog::clearRing();
   auto work = [&] {
      for (int i = 0; i < 20000; ++i) FLASHLOG(trace, 9, "thread line ", i);
   };
   std::thread other(work);
   work();
   other.join();
   trace.setLevel(Flashlog::off);
   // A line whose slot a stalled writer took over is dropped, so the ring may
   // hold a few less; both writers' texts share their prefix.
   auto lines = Flashlog::ring();
   EXPECT_LE(lines.size(), Flashlog::ringLines);
   EXPECT_GT(lines.size(), Flashlog::ringLines / 2);
   for (const auto& l : lines) {
      EXPECT_EQ(l.handle, "FlashlogTest.RingThreads");
      EXPECT_EQ(l.text.rfind("thread line ", 0), 0u) << l.text;
   }
}

} // namespace
