#include "pakto/FileDesc.h"

#include "sys/Calls.h"

#include <fcntl.h>

namespace Pakto {

bool FileDesc::nonBlockingIs(bool on) noexcept {
   Sys::Calls& sys = Sys::calls();
   const Sys::Result flags = sys.fcntl(descriptor_, F_GETFL, 0);
   if (!flags.ok()) return false;
   const long next = on ? (flags.value | O_NONBLOCK) : (flags.value & ~long(O_NONBLOCK));
   return next == flags.value || sys.fcntl(descriptor_, F_SETFL, next).ok();
}

} // namespace Pakto
