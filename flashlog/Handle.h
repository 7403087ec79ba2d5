#pragma once
// Trace handles: one per source file, found by name in a process-wide
// registry, each with the highest level it lets through. A trace site's test
// is one load and one compare against the handle.
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Flashlog {

constexpr int minLevel = 0;
constexpr int maxLevel = 9;
constexpr int off = -1; // a handle's level when it lets nothing through

class Handle {
 public:
   Handle(const Handle&) = delete;
   Handle& operator=(const Handle&) = delete;

   const std::string& name() const noexcept { return name_; }
   // Levels outside 0..9 are never enabled: a negative level wraps to a large
   // unsigned number.
   bool enabled(int level) const noexcept { return static_cast<unsigned>(level) < limit_; }
   // The highest level let through, or `off`.
   int level() const noexcept { return static_cast<int>(limit_) - 1; }
   // Throws Gant::RangeError for anything but off..9.
   void setLevel(int level);

 private:
   friend class Registry;
   explicit Handle(std::string name) : name_(std::move(name)) {}

   std::string name_;
   uint8_t limit_ = 0; // one more than the highest level let through
};

// The handle of that name, created (at the level given to setLevelAll, off
// by default) on first use. Handles live until the process ends, and the
// registry is built on first use, so
//    static Flashlog::Handle& trace = Flashlog::handle("MrouteLib");
// is safe anywhere. At namespace scope it costs nothing per trace; inside a
// function the compiler adds a guard test to every call.
Handle& handle(std::string_view name);
// Every handle created so far, by name.
std::vector<Handle*> handles();

void setLevel(std::string_view name, int level);
// Sets every handle, and the level that handles created later start with.
void setLevelAll(int level);
int defaultLevel();

} // namespace Flashlog
