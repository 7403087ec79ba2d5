#include "loop/EventLoop.h"

#include "gant/Assert.h"

#include <utility>

namespace Loop {

Watch::Watch(Watch&& other) noexcept
    : loop_(std::exchange(other.loop_, nullptr)), id_(other.id_) {}

Watch& Watch::operator=(Watch&& other) noexcept {
   if (this != &other) {
      reset();
      loop_ = std::exchange(other.loop_, nullptr);
      id_ = other.id_;
   }
   return *this;
}

void Watch::reset() noexcept {
   if (EventLoop* loop = std::exchange(loop_, nullptr)) loop->unwatch(id_);
}

Timer::Timer(Timer&& other) noexcept
    : loop_(std::exchange(other.loop_, nullptr)), id_(other.id_) {}

Timer& Timer::operator=(Timer&& other) noexcept {
   if (this != &other) {
      reset();
      loop_ = std::exchange(other.loop_, nullptr);
      id_ = other.id_;
   }
   return *this;
}

void Timer::rearm(double seconds) {
   GANT_ASSERT(loop_ != nullptr);
   loop_->timerArm(id_, seconds);
}

void Timer::cancel() noexcept {
   if (loop_) loop_->timerCancel(id_);
}

bool Timer::armed() const noexcept {
   return loop_ && loop_->timerArmed(id_);
}

void Timer::reset() noexcept {
   if (EventLoop* loop = std::exchange(loop_, nullptr)) loop->timerDrop(id_);
}

} // namespace Loop
