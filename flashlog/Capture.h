#pragma once
// Test support: sets trace levels for its lifetime and collects the lines
// then traced through the handles it enabled, so that a test can compare
// exact trace texts:
//
//    Flashlog::Capture capture("MrouteLib=9");
//    oifSet->handleInitialized();
//    EXPECT_EQ(capture.lines(),
//              std::vector<std::string>{"void MrouteLib::OifSet::handleInitialized()"});
//
// On destruction every handle's level (and the level for new handles) is
// put back as it was. Captures nest; destroy them in reverse order. One
// thread only.
#include "flashlog/Config.h"
#include "flashlog/Ring.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Flashlog {

class Handle;

class Capture {
 public:
   // Applies `levels` as configure() does (Config.h).
   explicit Capture(std::string_view levels);
   explicit Capture(std::vector<LevelSetting> settings);
   ~Capture();
   Capture(const Capture&) = delete;
   Capture& operator=(const Capture&) = delete;

   // The texts collected, in order, without handle or level.
   std::vector<std::string> lines() const;
   // The same with handle name and level.
   const std::vector<Line>& records() const noexcept { return records_; }
   void clear() noexcept { records_.clear(); }

   // Called for every enabled line.
   static void offer(const Handle& handle, int level, std::string_view text);

 private:
   bool wants(const Handle& handle, int level) const;

   std::vector<LevelSetting> settings_;
   std::vector<std::pair<Handle*, int>> savedLevels_;
   int savedDefault_;
   std::vector<Line> records_;
};

} // namespace Flashlog
