#include "flashlog/Flashlog.h"

#include "flashlog/Capture.h"
#include "gant/Error.h"
#include "sys/Calls.h"
#include "sys/Fd.h"

#include "gant/testlib/Thrown.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

// Each test uses its own handle names: handles live for the whole process.

TEST(Flashlog, DisabledTraceEvaluatesNoArgument) {
   Flashlog::Handle& trace = Flashlog::handle("FlashlogTest.Disabled");
   int evaluated = 0;
   auto sideEffect = [&] { return ++evaluated; };
   FLASHLOG(trace, 0, "never ", sideEffect());
   EXPECT_EQ(evaluated, 0);

   Flashlog::Capture capture("FlashlogTest.Disabled=4");
   FLASHLOG(trace, 5, "too detailed ", sideEffect());
   EXPECT_EQ(evaluated, 0);
   FLASHLOG(trace, 4, "value ", sideEffect(), ' ', 2.5, " ok");
   EXPECT_EQ(evaluated, 1);
   EXPECT_EQ(capture.lines(), std::vector<std::string>{"value 1 2.5 ok"});
}

TEST(Flashlog, LevelThresholdBoundaries) {
   Flashlog::Handle& h = Flashlog::handle("FlashlogTest.Levels");
   EXPECT_EQ(h.level(), Flashlog::off);
   // At level L, levels 0..L are traced; a negative level never is.
   for (int level : {Flashlog::off, 0, 9}) {
      h.setLevel(level);
      for (int asked : {-1, 0, 1, 9, 10})
         EXPECT_EQ(h.enabled(asked), asked >= 0 && asked <= level) << level << " " << asked;
   }
   EXPECT_EQ(Gant::Test::thrown<Gant::RangeError>([&] { h.setLevel(10); }), "Flashlog level < -1 or > 9 not allowed");
   EXPECT_THROW(h.setLevel(-2), Gant::RangeError);
   EXPECT_EQ(h.level(), 9); // unchanged by the refused calls
   h.setLevel(Flashlog::off);
}

TEST(Flashlog, HandlesAreFoundByNameAndListed) {
   Flashlog::Handle& a = Flashlog::handle("FlashlogTest.Registry");
   EXPECT_EQ(&Flashlog::handle("FlashlogTest.Registry"), &a);
   auto all = Flashlog::handles();
   EXPECT_NE(std::find(all.begin(), all.end(), &a), all.end());
   EXPECT_TRUE(std::is_sorted(all.begin(), all.end(),
                              [](auto* x, auto* y) { return x->name() < y->name(); }));
}

TEST(Flashlog, FdSinkGetsOnePrefixedLinePerTrace) {
   int ends[2];
   ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
   Sys::Fd readEnd(ends[0]), writeEnd(ends[1]);
   Flashlog::Handle& trace = Flashlog::handle("FlashlogTest.Sink");
   Flashlog::setSink(Flashlog::fdSink(writeEnd.get()));
   {
      Flashlog::Capture capture("FlashlogTest.Sink=9");
      FLASHLOG(trace, 9, "void Foo::handleBar()");
      FLASHLOG(trace, 0, "count ", -7);
   }
   FLASHLOG(trace, 0, "after the capture: off again");
   Flashlog::setSink(nullptr);
   char buf[256];
   Sys::Result r = Sys::calls().read(readEnd.get(), buf, sizeof buf);
   ASSERT_TRUE(r.ok());
   EXPECT_EQ(std::string(buf, r.value),
             "FlashlogTest.Sink 9 void Foo::handleBar()\nFlashlogTest.Sink 0 count -7\n");
}

} // namespace
