// The netlink cache-report parser. The first byte picks the manager: bit 0
// clear, IPv4 reading netlink, set, IPv6. The rest is one received datagram
// as the socket can deliver it: its first message a cache report of the
// manager's family (what the in-kernel filter checks before anything is
// queued) and no cache report of another family behind it (the kernel
// sends one report per datagram; only root, trusted, could send more).
#include "fuzz/Harness.h"

#include <cstring>

namespace {

bool deliverable(const uint8_t* data, size_t size, uint8_t family) {
   uint16_t type;
   if (size < 17 || (std::memcpy(&type, data + 4, 2), type) != 96 || data[16] != family) return false;
   for (size_t at = 0; size - at >= 17;) {
      uint32_t len;
      std::memcpy(&len, data + at, 4), std::memcpy(&type, data + at + 4, 2);
      if (len < 16 || len > size - at) break;
      if (type == 96 && data[at + 16] != family) return false;
      const size_t step = (size_t(len) + 3) & ~size_t(3);
      if (step >= size - at) break;
      at += step;
   }
   return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   if (size < 1) return 0;
   const bool v6 = data[0] & 1;
   if (!deliverable(data + 1, size - 1, v6 ? 129 : 128)) return 0;
   auto& m = Fuzz::manager(v6 ? Pakto::ipv6() : Pakto::ipv4(), true);
   Fuzz::check(m, m.readMrtMessage(Fuzz::packet(data + 1, size - 1), Fuzz::status()));
   return 0;
}
