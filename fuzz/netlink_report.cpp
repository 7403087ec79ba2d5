// The netlink cache-report parser. The first byte picks the manager and its
// view of the router: bit 0 clear, IPv4 reading netlink, set, IPv6; bit 1
// set, no status, so no vif maps to an interface. The rest is one received
// datagram.
#include "fuzz/Harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   if (size < 1) return 0;
   auto& m = Fuzz::manager(data[0] & 1 ? Pakto::ipv6() : Pakto::ipv4(), true);
   Fuzz::check(m, m.readMrtMessage(Fuzz::packet(data + 1, size - 1), data[0] & 2 ? nullptr : Fuzz::status()));
   return 0;
}
