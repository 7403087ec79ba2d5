#pragma once
// Trace levels from text, as the tools take them on their command line:
//    "MrouteLib=9,MfibDirSm=5"   "all=9"   "all=3,MrtNotify=off"
// Items apply left to right; "all" sets every handle, including those
// created later. A level is 0..9 or "off". Blanks around names and levels
// are ignored. The library reads no environment variable; its host decides
// where a levels comes from.
#include <string>
#include <string_view>
#include <vector>

namespace Flashlog {

struct LevelSetting {
   std::string handle; // a handle name, or "all"
   int level = 0;      // 0..9, or off

   bool operator==(const LevelSetting&) const = default;
};

// Throws Gant::ParseError naming the bad item; an empty levels is no settings.
std::vector<LevelSetting> parseLevels(std::string_view levels);
void apply(const std::vector<LevelSetting>& settings);
// Parses the whole levels before changing anything: a bad levels changes nothing.
void configure(std::string_view levels);

} // namespace Flashlog
