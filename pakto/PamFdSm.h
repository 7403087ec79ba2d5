#pragma once
// Watches a pam's descriptor on the process's event loop: each time it is
// readable the pam's readableCount rises, and a pam nobody reviews reads
// one packet at once.
#include "loop/EventLoop.h"
#include "pakto/Pam.h"

#include <string>

namespace Pakto {

// The loop that pams watch their descriptors on; the host sets it once.
void eventLoopIs(Loop::EventLoop* loop) noexcept;
Loop::EventLoop* eventLoop() noexcept;

class PamFdSm : public Gant::PtrInterface {
 public:
   // Asserts that the host has set the event loop.
   PamFdSm(Pam& pam, int fd);
   PamFdSm(const PamFdSm&) = delete;
   PamFdSm& operator=(const PamFdSm&) = delete;
   int fd() const noexcept { return fd_; }

 private:
   void handleReadable();
   Pam& pam_;
   int fd_;
   Loop::Watch watch_;
};

} // namespace Pakto

namespace Gant {
inline EntityRef entityName(const Pakto::PamFdSm* f) {
   if (!f) return {};
   return EntityRef{Name("PamFdSm[" + std::to_string(f->fd()) + "]"), false};
}
} // namespace Gant
