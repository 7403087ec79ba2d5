#include "flashlog/Config.h"

#include "flashlog/Handle.h"
#include "gant/Error.h"

namespace Flashlog {

namespace {

std::string_view trim(std::string_view s) {
   while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
   while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
   return s;
}

[[noreturn]] void refuse(std::string_view item, const char* why) {
   throw Gant::ParseError("Flashlog level item '" + std::string(item) + "': " + why);
}

LevelSetting parseItem(std::string_view item) {
   auto eq = item.find('=');
   if (eq == std::string_view::npos) refuse(item, "expected name=level");
   std::string_view name = trim(item.substr(0, eq));
   std::string_view level = trim(item.substr(eq + 1));
   if (name.empty()) refuse(item, "empty handle name");
   for (char c : name)
      if (c == ' ' || c == '\t' || c == '=') refuse(item, "blank or '=' in handle name");
   if (level == "off") return {std::string(name), off};
   if (level.size() != 1 || level[0] < '0' || level[0] > '9')
      refuse(item, "level not 0..9 or off");
   return {std::string(name), level[0] - '0'};
}

} // namespace

std::vector<LevelSetting> parseLevels(std::string_view levels) {
   std::vector<LevelSetting> settings;
   if (trim(levels).empty()) return settings;
   for (;;) {
      auto comma = levels.find(',');
      settings.push_back(parseItem(levels.substr(0, comma)));
      if (comma == std::string_view::npos) break;
      levels.remove_prefix(comma + 1);
   }
   return settings;
}

void apply(const std::vector<LevelSetting>& settings) {
   for (const LevelSetting& s : settings) {
      if (s.handle == "all")
         setLevelAll(s.level);
      else
         setLevel(s.handle, s.level);
   }
}

void configure(std::string_view levels) {
   apply(parseLevels(levels));
}

} // namespace Flashlog
