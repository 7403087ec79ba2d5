#include "flashlog/Handle.h"

#include "gant/Error.h"

#include <map>
#include <memory>
#include <mutex>

namespace Flashlog {

namespace {
void checkLevel(int level) {
   if (level < off || level > maxLevel)
      throw Gant::RangeError("Flashlog level < -1 or > 9 not allowed");
}
} // namespace

void Handle::setLevel(int level) {
   checkLevel(level);
   limit_ = static_cast<uint8_t>(level + 1);
}

// The handle table. Handle creation takes a lock, since the function-local
// statics that hold handles may first run on any thread; trace sites never
// come here.
class Registry {
 public:
   static Registry& instance() {
      // Never destroyed: trace sites may run during exit.
      static Registry* registry = new Registry;
      return *registry;
   }

   Handle& find(std::string_view name) {
      std::lock_guard lock(mutex_);
      auto it = handles_.find(name);
      if (it == handles_.end()) {
         auto created = std::unique_ptr<Handle>(new Handle(std::string(name)));
         created->limit_ = static_cast<uint8_t>(defaultLevel_ + 1);
         it = handles_.emplace(created->name(), std::move(created)).first;
      }
      return *it->second;
   }

   std::vector<Handle*> all() {
      std::lock_guard lock(mutex_);
      std::vector<Handle*> result;
      result.reserve(handles_.size());
      for (auto& [name, h] : handles_) result.push_back(h.get());
      return result;
   }

   void setAll(int level) {
      checkLevel(level);
      std::lock_guard lock(mutex_);
      defaultLevel_ = level;
      for (auto& [name, h] : handles_) h->setLevel(level);
   }

   int defaultLevel() {
      std::lock_guard lock(mutex_);
      return defaultLevel_;
   }

 private:
   std::mutex mutex_;
   std::map<std::string, std::unique_ptr<Handle>, std::less<>> handles_;
   int defaultLevel_ = off;
};

Handle& handle(std::string_view name) {
   return Registry::instance().find(name);
}

std::vector<Handle*> handles() {
   return Registry::instance().all();
}

void setLevel(std::string_view name, int level) {
   checkLevel(level); // before creating a handle for a refused call
   handle(name).setLevel(level);
}

void setLevelAll(int level) {
   Registry::instance().setAll(level);
}

int defaultLevel() {
   return Registry::instance().defaultLevel();
}

} // namespace Flashlog
