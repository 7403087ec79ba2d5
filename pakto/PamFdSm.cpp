#include "pakto/PamFdSm.h"

#include "gant/Assert.h"

namespace Pakto {

namespace {
Loop::EventLoop* processLoop = nullptr;
}

void eventLoopIs(Loop::EventLoop* loop) noexcept { processLoop = loop; }
Loop::EventLoop* eventLoop() noexcept { return processLoop; }

PamFdSm::PamFdSm(Pam& pam, int fd) : pam_(pam), fd_(fd) {
   GANT_ASSERT(eventLoop() && "Pakto::eventLoopIs must be called before a pam is enabled");
   watch_ = eventLoop()->watchReadable(fd, [this] { handleReadable(); });
}

void PamFdSm::handleReadable() {
   // The pam may drop this reactor from inside either call: nothing of this
   // object is touched after them.
   Pam& pam = pam_;
   const bool reviewed = pam.reviewedOnReadable();
   pam.readableCountInc(1);
   if (!reviewed) pam.doGetRxPkt();
}

} // namespace Pakto
