#include "sys/Fd.h"

#include "sys/Calls.h"

namespace Sys {

void Fd::reset(int fd) noexcept {
   int old = std::exchange(fd_, fd);
   if (old >= 0) discard(calls().close(old)); // nothing to do about it here
}

} // namespace Sys
