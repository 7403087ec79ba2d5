#include "loop/EpollLoop.h"

#include <chrono>

#include "gant/Assert.h"
#include "sys/Calls.h"

#include <sys/epoll.h>

#include <algorithm>
#include <climits>
#include <cmath>

namespace Loop {

namespace {

constexpr int eventsPerWait = 64;

// Rounded up: a wait rounded down would wake before the deadline, find no
// timer due and wait again (a timer never runs early either way).
int timeoutMs(double seconds) {
   if (seconds < 0) return -1;
   double ms = std::ceil(seconds * 1000.0);
   return ms >= INT_MAX ? INT_MAX : static_cast<int>(ms);
}

} // namespace

EpollLoop::EpollLoop()
    : epoll_(static_cast<int>(
          Sys::check(Sys::calls().epoll_create1(EPOLL_CLOEXEC), "epoll_create1"))) {}

EpollLoop::~EpollLoop() {
   GANT_ASSERT(watches_.empty());
   GANT_ASSERT(timers_.empty());
}

Watch EpollLoop::watchReadable(int fd, std::function<void()> onReadable) {
   uint64_t id = nextWatchId_++;
   epoll_event event{};
   event.events = EPOLLIN;
   event.data.u64 = id;
   Sys::check(Sys::calls().epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event),
              "epoll_ctl(EPOLL_CTL_ADD)");
   watches_.emplace(id, std::make_shared<WatchEntry>(WatchEntry{fd, std::move(onReadable)}));
   watchOfFd_[fd] = id;
   return makeWatch(id);
}

void EpollLoop::unwatch(uint64_t id) noexcept {
   auto it = watches_.find(id);
   if (it == watches_.end()) return;
   int fd = it->second->fd;
   auto registered = watchOfFd_.find(fd);
   if (registered != watchOfFd_.end() && registered->second == id) {
      watchOfFd_.erase(registered);
      // Fails harmlessly when the descriptor was closed first: closing
      // already took it out of the epoll set.
      Sys::discard(Sys::calls().epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr));
   }
   watches_.erase(it);
}

Timer EpollLoop::timerAfter(double seconds, std::function<void()> onExpiry) {
   uint64_t id = timers_.add(std::move(onExpiry));
   timerArm(id, seconds);
   return makeTimer(id);
}

void EpollLoop::timerArm(uint64_t id, double seconds) {
   // `seconds > 0` is false for NaN too.
   timers_.arm(id, now() + (seconds > 0 ? seconds : 0.0));
}

void EpollLoop::timerCancel(uint64_t id) noexcept {
   timers_.cancel(id);
}

bool EpollLoop::timerArmed(uint64_t id) const noexcept {
   return timers_.armed(id);
}

void EpollLoop::timerDrop(uint64_t id) noexcept {
   timers_.drop(id);
}

// The monotonic clock, read without a system call (and unable to fail).
double EpollLoop::now() const {
   return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int EpollLoop::runOnce(double maxWaitSeconds) {
   double wait = maxWaitSeconds;
   if (std::optional<double> next = timers_.nextDeadline()) {
      double untilTimer = std::max(0.0, *next - now());
      wait = wait < 0 ? untilTimer : std::min(wait, untilTimer);
   }
   epoll_event events[eventsPerWait];
   long ready = Sys::check(
       Sys::calls().epoll_wait(epoll_.get(), events, eventsPerWait, timeoutMs(wait)),
       "epoll_wait");

   int ran = 0;
   for (long i = 0; i < ready; ++i) {
      // Looked up for each event: an earlier callback of this batch may
      // have removed the watch.
      auto it = watches_.find(events[i].data.u64);
      if (it == watches_.end()) continue;
      std::shared_ptr<WatchEntry> entry = it->second;
      entry->callback();
      ++ran;
   }
   return ran + timers_.fireDue(now());
}

void EpollLoop::run() {
   stopped_ = false;
   while (!stopped_) runOnce(-1);
}

bool EpollLoop::runUntil(const std::function<bool()>& predicate, double timeoutSeconds) {
   double deadline = now() + timeoutSeconds;
   for (;;) {
      if (predicate()) return true;
      double left = deadline - now();
      if (left <= 0) return false;
      runOnce(left);
   }
}

} // namespace Loop
