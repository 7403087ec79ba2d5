#include "loop/TimerQueue.h"

#include "gant/Assert.h"

#include <algorithm>

namespace Loop {

uint64_t TimerQueue::add(std::function<void()> callback) {
   uint64_t id = nextId_++;
   timers_.emplace(id, std::make_shared<Entry>(Entry{std::move(callback)}));
   return id;
}

void TimerQueue::arm(uint64_t id, double deadline) {
   auto it = timers_.find(id);
   GANT_ASSERT(it != timers_.end());
   Entry& e = *it->second;
   if (!e.armed) ++armedCount_;
   e.armed = true;
   ++e.generation;
   heap_.push_back({deadline, nextOrder_++, id, e.generation});
   std::push_heap(heap_.begin(), heap_.end(), later);
   if (heap_.size() > 2 * armedCount_ + 64) compact();
}

void TimerQueue::disarm(Entry& e) noexcept {
   if (e.armed) --armedCount_;
   e.armed = false;
   ++e.generation;
}

void TimerQueue::cancel(uint64_t id) noexcept {
   auto it = timers_.find(id);
   if (it != timers_.end()) disarm(*it->second);
}

bool TimerQueue::armed(uint64_t id) const noexcept {
   auto it = timers_.find(id);
   return it != timers_.end() && it->second->armed;
}

void TimerQueue::drop(uint64_t id) noexcept {
   auto it = timers_.find(id);
   if (it == timers_.end()) return;
   disarm(*it->second);
   timers_.erase(it);
}

bool TimerQueue::live(const Pending& p) const noexcept {
   auto it = timers_.find(p.id);
   return it != timers_.end() && it->second->armed && it->second->generation == p.generation;
}

void TimerQueue::compact() {
   std::erase_if(heap_, [this](const Pending& p) { return !live(p); });
   std::make_heap(heap_.begin(), heap_.end(), later);
}

std::optional<double> TimerQueue::nextDeadline() {
   while (!heap_.empty() && !live(heap_.front())) {
      std::pop_heap(heap_.begin(), heap_.end(), later);
      heap_.pop_back();
   }
   if (heap_.empty()) return std::nullopt;
   return heap_.front().deadline;
}

int TimerQueue::fireDue(double now) {
   std::vector<Pending> due;
   while (!heap_.empty() && heap_.front().deadline <= now) {
      std::pop_heap(heap_.begin(), heap_.end(), later);
      due.push_back(heap_.back());
      heap_.pop_back();
   }
   int ran = 0;
   for (const Pending& p : due) {
      // An earlier callback of this batch may have cancelled, re-armed or
      // dropped this one.
      if (!live(p)) continue;
      std::shared_ptr<Entry> entry = timers_.find(p.id)->second;
      --armedCount_;
      entry->armed = false;
      entry->callback();
      ++ran;
   }
   return ran;
}

} // namespace Loop
