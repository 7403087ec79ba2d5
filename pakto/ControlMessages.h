#pragma once
// A walk over the control messages recvmsg left in a buffer, bounded by what
// was received: a message whose length is short or runs past the end ends
// the walk, so a truncated buffer is never read beyond.
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Pakto {

// Calls visit(level, type, data, dataBytes) for each whole message; visit
// returns false to stop.
template <class Visit>
void forEachControlMessage(const uint8_t* control, std::size_t bytes, Visit&& visit) {
   for (std::size_t at = 0; bytes - at >= sizeof(cmsghdr);) {
      cmsghdr header;
      std::memcpy(&header, control + at, sizeof header);
      if (header.cmsg_len < sizeof(cmsghdr) || header.cmsg_len > bytes - at) return;
      if (!visit(header.cmsg_level, header.cmsg_type, control + at + CMSG_LEN(0), header.cmsg_len - CMSG_LEN(0)))
         return;
      const std::size_t step = CMSG_ALIGN(header.cmsg_len);
      if (step >= bytes - at) return;
      at += step;
   }
}

} // namespace Pakto
