// The netlink cache-report parser. The first byte picks the manager: bit 0
// clear, IPv4 reading netlink, set, IPv6. The rest is one received datagram,
// as the socket's in-kernel filter lets it through: its first message is a
// cache report of the manager's family (the program checks those bytes
// before the kernel queues anything).
#include "fuzz/Harness.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   if (size < 1) return 0;
   const bool v6 = data[0] & 1;
   ++data, --size;
   uint16_t type;
   if (size < 17 || (std::memcpy(&type, data + 4, 2), type) != 96 || data[16] != (v6 ? 129 : 128)) return 0;
   auto& m = Fuzz::manager(v6 ? Pakto::ipv6() : Pakto::ipv4(), true);
   Fuzz::check(m, m.readMrtMessage(Fuzz::packet(data, size), Fuzz::status()));
   return 0;
}
