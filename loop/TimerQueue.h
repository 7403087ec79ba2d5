#pragma once
// The timers of a loop, ordered by deadline in a heap. Cancelling or
// re-arming leaves the old heap entry behind and marks it stale by a
// generation number, which keeps both O(log n); the heap is rebuilt when
// stale entries outnumber live ones. Times are plain seconds, so the queue
// is tested without a clock.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

namespace Loop {

class TimerQueue {
 public:
   // A new, unarmed timer.
   uint64_t add(std::function<void()> callback);
   // Arms it for `deadline`, replacing any pending run.
   void arm(uint64_t id, double deadline);
   void cancel(uint64_t id) noexcept;
   bool armed(uint64_t id) const noexcept;
   // Forgets the timer; safe from inside its own callback.
   void drop(uint64_t id) noexcept;

   // The earliest pending deadline.
   std::optional<double> nextDeadline();
   // Runs the timers due at `now` that were pending when called, by deadline
   // and, on equal deadlines, in the order armed. Timers armed by these
   // callbacks wait for the next call, so a timer re-arming itself with no
   // delay cannot starve the loop. Returns how many ran.
   int fireDue(double now);

   bool empty() const noexcept { return timers_.empty(); }
   std::size_t heapSize() const noexcept { return heap_.size(); }

 private:
   struct Entry {
      std::function<void()> callback;
      uint64_t generation = 0; // bumped by every arm and cancel
      bool armed = false;
   };
   struct Pending {
      double deadline;
      uint64_t order;
      uint64_t id;
      uint64_t generation;
   };
   static bool later(const Pending& a, const Pending& b) noexcept {
      return a.deadline > b.deadline || (a.deadline == b.deadline && a.order > b.order);
   }
   bool live(const Pending& p) const noexcept;
   void disarm(Entry& e) noexcept;
   void compact();

   // shared_ptr so that a callback dropping its own timer does not destroy
   // the function while it runs.
   std::unordered_map<uint64_t, std::shared_ptr<Entry>> timers_;
   std::vector<Pending> heap_;
   std::size_t armedCount_ = 0;
   uint64_t nextId_ = 1;
   uint64_t nextOrder_ = 0;
};

} // namespace Loop
