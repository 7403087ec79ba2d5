#pragma once
// The library has no main loop of its own: it asks its host's loop to watch
// descriptors and to run timers through this interface. Watch and Timer own
// what they start: destroying one stops it, also from inside its own
// callback. Both must go before the loop that made them.
#include <cstdint>
#include <functional>

namespace Loop {

class EventLoop;

// Calls its callback while a descriptor is readable (level-triggered; hang-up
// and error count as readable, so the reader sees them). Empty when default
// constructed or moved from.
class Watch {
 public:
   Watch() noexcept = default;
   Watch(Watch&& other) noexcept;
   Watch& operator=(Watch&& other) noexcept;
   Watch(const Watch&) = delete;
   Watch& operator=(const Watch&) = delete;
   ~Watch() { reset(); }

   // Stops watching now; the callback is never called again.
   void reset() noexcept;
   bool active() const noexcept { return loop_ != nullptr; }

 private:
   friend class EventLoop;
   Watch(EventLoop* loop, uint64_t id) noexcept : loop_(loop), id_(id) {}

   EventLoop* loop_ = nullptr;
   uint64_t id_ = 0;
};

// Calls its callback once when its time comes; can be armed again (also from
// its own callback) for another run of the same callback.
class Timer {
 public:
   Timer() noexcept = default;
   Timer(Timer&& other) noexcept;
   Timer& operator=(Timer&& other) noexcept;
   Timer(const Timer&) = delete;
   Timer& operator=(const Timer&) = delete;
   ~Timer() { reset(); }

   // Runs the callback `seconds` from now, replacing any run still pending.
   void rearm(double seconds);
   // Drops the pending run, if any; the callback stays for rearm.
   void cancel() noexcept;
   bool armed() const noexcept;
   // Drops the callback as destruction does; the Timer becomes empty.
   void reset() noexcept;
   explicit operator bool() const noexcept { return loop_ != nullptr; }

 private:
   friend class EventLoop;
   Timer(EventLoop* loop, uint64_t id) noexcept : loop_(loop), id_(id) {}

   EventLoop* loop_ = nullptr;
   uint64_t id_ = 0;
};

class EventLoop {
 public:
   EventLoop() = default;
   EventLoop(const EventLoop&) = delete;
   EventLoop& operator=(const EventLoop&) = delete;
   virtual ~EventLoop() = default;

   // One watch per descriptor at a time.
   virtual Watch watchReadable(int fd, std::function<void()> onReadable) = 0;
   // A negative or zero delay runs the callback on the next dispatch.
   virtual Timer timerAfter(double seconds, std::function<void()> onExpiry) = 0;
   // Monotonic time in seconds.
   virtual double now() const = 0;

 protected:
   // Implementations hand out their watches and timers under their own ids
   // and are called back with those ids below.
   Watch makeWatch(uint64_t id) noexcept { return Watch(this, id); }
   Timer makeTimer(uint64_t id) noexcept { return Timer(this, id); }

 private:
   friend class Watch;
   friend class Timer;
   virtual void unwatch(uint64_t id) noexcept = 0;
   virtual void timerArm(uint64_t id, double seconds) = 0;
   virtual void timerCancel(uint64_t id) noexcept = 0;
   virtual bool timerArmed(uint64_t id) const noexcept = 0;
   virtual void timerDrop(uint64_t id) noexcept = 0;
};

} // namespace Loop
