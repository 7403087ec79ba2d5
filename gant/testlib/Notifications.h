#pragma once
// Counts notifications per handler, for tests that check "notifies exactly
// once per change". Derive from an entity's Reactor and call hit("name").
#include <map>
#include <string>

namespace Gant::Test {

class Notifications {
 public:
   void hit(const std::string& handler) { ++counts_[handler]; ++total_; }
   int count(const std::string& handler) const {
      auto it = counts_.find(handler);
      return it == counts_.end() ? 0 : it->second;
   }
   int total() const { return total_; }
   void clear() {
      counts_.clear();
      total_ = 0;
   }

 private:
   std::map<std::string, int> counts_;
   int total_ = 0;
};

} // namespace Gant::Test
