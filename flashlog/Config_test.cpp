#include "flashlog/Config.h"

#include "flashlog/Capture.h"
#include "flashlog/Handle.h"
#include "gant/Error.h"

#include "gant/testlib/Thrown.h"

#include <gtest/gtest.h>

namespace {

using Settings = std::vector<Flashlog::LevelSetting>;

TEST(FlashlogConfig, ParsesItemsInOrder) {
   EXPECT_EQ(Flashlog::parseLevels("MrouteLib=9,MfibDirSm=5"),
             (Settings{{"MrouteLib", 9}, {"MfibDirSm", 5}}));
   EXPECT_EQ(Flashlog::parseLevels("all=9"), (Settings{{"all", 9}}));
   EXPECT_EQ(Flashlog::parseLevels(" all = 0 , Mroute::MrtPam=off"),
             (Settings{{"all", 0}, {"Mroute::MrtPam", Flashlog::off}}));
   EXPECT_EQ(Flashlog::parseLevels(""), Settings{});
   EXPECT_EQ(Flashlog::parseLevels("  "), Settings{});
}

TEST(FlashlogConfig, RefusesBadLevelsNamingTheItem) {
   auto refusal = [](std::string_view levels) {
      return Gant::Test::thrown<Gant::ParseError>([&] { Flashlog::parseLevels(levels); });
   };
   EXPECT_EQ(refusal("MrouteLib"), "Flashlog level item 'MrouteLib': expected name=level");
   EXPECT_EQ(refusal("MrouteLib=10"), "Flashlog level item 'MrouteLib=10': level not 0..9 or off");
   EXPECT_EQ(refusal("MrouteLib=x"), "Flashlog level item 'MrouteLib=x': level not 0..9 or off");
   EXPECT_EQ(refusal("MrouteLib="), "Flashlog level item 'MrouteLib=': level not 0..9 or off");
   EXPECT_EQ(refusal("=3"), "Flashlog level item '=3': empty handle name");
   EXPECT_EQ(refusal("a=1,"), "Flashlog level item '': expected name=level");
   EXPECT_EQ(refusal("a b=1"), "Flashlog level item 'a b=1': blank or '=' in handle name");
}

TEST(FlashlogConfig, ConfigureAppliesLeftToRightOrNothing) {
   Flashlog::Capture restore(Settings{}); // puts every level back afterwards
   Flashlog::Handle& a = Flashlog::handle("FlashlogTest.Config.a");
   Flashlog::Handle& b = Flashlog::handle("FlashlogTest.Config.b");

   Flashlog::configure("all=2,FlashlogTest.Config.a=7");
   EXPECT_EQ(a.level(), 7);
   EXPECT_EQ(b.level(), 2);

   EXPECT_THROW(Flashlog::configure("FlashlogTest.Config.b=5,oops"), Gant::ParseError);
   EXPECT_EQ(b.level(), 2);

   Flashlog::configure("FlashlogTest.Config.a=off");
   EXPECT_FALSE(a.enabled(0));
}

} // namespace
