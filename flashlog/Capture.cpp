#include "flashlog/Capture.h"

#include "flashlog/Handle.h"

#include <algorithm>

namespace Flashlog {

namespace {
std::vector<Capture*>& live() {
   static auto* captures = new std::vector<Capture*>; // traces may run during exit
   return *captures;
}
} // namespace

Capture::Capture(std::string_view levels) : Capture(parseLevels(levels)) {}

Capture::Capture(std::vector<LevelSetting> settings)
    : settings_(std::move(settings)), savedDefault_(defaultLevel()) {
   for (Handle* h : handles()) savedLevels_.emplace_back(h, h->level());
   apply(settings_);
   live().push_back(this);
}

Capture::~Capture() {
   auto& captures = live();
   captures.erase(std::find(captures.begin(), captures.end(), this));
   // Handles created meanwhile go back to the default they would have had.
   setLevelAll(savedDefault_);
   for (auto& [h, level] : savedLevels_) h->setLevel(level);
}

std::vector<std::string> Capture::lines() const {
   std::vector<std::string> texts;
   texts.reserve(records_.size());
   for (const Line& r : records_) texts.push_back(r.text);
   return texts;
}

// The last setting naming the handle (or "all") decides, as it did when the
// levels were applied.
bool Capture::wants(const Handle& handle, int level) const {
   for (auto it = settings_.rbegin(); it != settings_.rend(); ++it)
      if (it->handle == handle.name() || it->handle == "all") return level <= it->level;
   return false;
}

void Capture::offer(const Handle& handle, int level, std::string_view text) {
   for (Capture* c : live())
      if (c->wants(handle, level)) c->records_.push_back({handle.name(), level, std::string(text)});
}

} // namespace Flashlog
