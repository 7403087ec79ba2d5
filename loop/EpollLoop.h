#pragma once
// The event loop of the tools and tests: epoll for descriptors, and a timer
// heap whose earliest deadline becomes epoll_wait's timeout. A timerfd would
// still need the heap to order several timers, and would only add a
// descriptor and a system call per re-arm; the cost of the heap is
// epoll_wait's millisecond resolution (waits are rounded up; a timer never
// runs before its deadline).
//
// Callbacks may add and remove watches and timers freely: a watch removed
// during dispatch is not called again, even for an event already fetched in
// the same batch. All system calls go through Sys::calls().
#include "loop/EventLoop.h"
#include "loop/TimerQueue.h"
#include "sys/Fd.h"

#include <functional>
#include <memory>
#include <unordered_map>

namespace Loop {

class EpollLoop : public EventLoop {
 public:
   // Throws Gant::ErrnoError("epoll_create1").
   EpollLoop();
   // Every Watch and Timer it handed out must be gone by now.
   ~EpollLoop() override;

   // Throws Gant::ErrnoError("epoll_ctl(EPOLL_CTL_ADD)"), e.g. EEXIST for a
   // descriptor already watched or EBADF for a closed one.
   Watch watchReadable(int fd, std::function<void()> onReadable) override;
   Timer timerAfter(double seconds, std::function<void()> onExpiry) override;
   double now() const override;

   // Waits at most maxWaitSeconds (a negative value: until there is
   // something to do), then runs the ready watches and the due timers.
   // Returns the number of callbacks run. Throws Gant::ErrnoError("epoll_wait").
   int runOnce(double maxWaitSeconds);
   // Dispatches until stop() is called from a callback.
   void run();
   void stop() noexcept { stopped_ = true; }
   // Dispatches until `predicate` holds, checked before each wait, or
   // until timeoutSeconds have passed; returns whether it held.
   bool runUntil(const std::function<bool()>& predicate, double timeoutSeconds);

 private:
   struct WatchEntry {
      int fd;
      std::function<void()> callback;
   };

   void unwatch(uint64_t id) noexcept override;
   void timerArm(uint64_t id, double seconds) override;
   void timerCancel(uint64_t id) noexcept override;
   bool timerArmed(uint64_t id) const noexcept override;
   void timerDrop(uint64_t id) noexcept override;

   Sys::Fd epoll_;
   // shared_ptr so that a callback removing its own watch does not destroy
   // the function while it runs.
   std::unordered_map<uint64_t, std::shared_ptr<WatchEntry>> watches_;
   // The watch registered in epoll for each descriptor: a Watch outliving a
   // close must not unregister a newer watch of a reused descriptor number.
   std::unordered_map<int, uint64_t> watchOfFd_;
   uint64_t nextWatchId_ = 1;
   TimerQueue timers_;
   bool stopped_ = false;
};

} // namespace Loop
