#include "flashlog/Capture.h"

#include "flashlog/Flashlog.h"

#include <gtest/gtest.h>

namespace {

TEST(FlashlogCapture, CollectsExactTextsOfItsHandlesAndLevels) {
   Flashlog::Handle& trace = Flashlog::handle("FlashlogTest.Capture");
   Flashlog::Handle& other = Flashlog::handle("FlashlogTest.Capture.other");
   {
      Flashlog::Capture capture("FlashlogTest.Capture=9");
      FLASHLOG(trace, 9, "void MrouteLib::OifSet::handleInitialized()");
      FLASHLOG(trace, 8, "oifs ", 3);
      FLASHLOG(other, 0, "not captured: level off");
      EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                     "void MrouteLib::OifSet::handleInitialized()", "oifs 3"}));
      EXPECT_EQ(capture.records()[1], (Flashlog::Line{"FlashlogTest.Capture", 8, "oifs 3"}));
      capture.clear();
      EXPECT_TRUE(capture.lines().empty());
   }
   EXPECT_FALSE(trace.enabled(0));
}

TEST(FlashlogCapture, NestedCapturesSeeOnlyWhatTheyAskedFor) {
   Flashlog::Handle& a = Flashlog::handle("FlashlogTest.Capture.a");
   Flashlog::Handle& b = Flashlog::handle("FlashlogTest.Capture.b");
   Flashlog::Capture outer("FlashlogTest.Capture.a=5");
   {
      Flashlog::Capture inner("FlashlogTest.Capture.b=9,FlashlogTest.Capture.a=off");
      FLASHLOG(a, 1, "a while off");
      FLASHLOG(b, 9, "b detail");
      EXPECT_EQ(inner.lines(), std::vector<std::string>{"b detail"});
   }
   FLASHLOG(a, 5, "a again");
   FLASHLOG(b, 0, "b off again");
   EXPECT_EQ(outer.lines(), std::vector<std::string>{"a again"});
   EXPECT_EQ(a.level(), 5);
   EXPECT_EQ(b.level(), Flashlog::off);
}

TEST(FlashlogCapture, RestoresEveryLevelAndTheDefaultForNewHandles) {
   Flashlog::Handle& a = Flashlog::handle("FlashlogTest.Capture.restore");
   a.setLevel(3);
   {
      Flashlog::Capture capture("all=6");
      EXPECT_EQ(a.level(), 6);
      EXPECT_EQ(Flashlog::handle("FlashlogTest.Capture.later").level(), 6);
   }
   EXPECT_EQ(a.level(), 3);
   EXPECT_EQ(Flashlog::handle("FlashlogTest.Capture.later").level(), Flashlog::off);
   EXPECT_EQ(Flashlog::defaultLevel(), Flashlog::off);
   a.setLevel(Flashlog::off);
}

} // namespace
