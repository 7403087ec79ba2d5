// The raw IPv4 upcall parser: the input is one datagram read from the
// multicast routing socket (an igmpmsg record, then the packet for a
// whole-packet upcall).
#include "fuzz/Harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   auto& m = Fuzz::manager(Pakto::ipv4(), false);
   Fuzz::check(m, m.readMrtMessage(Fuzz::packet(data, size), Fuzz::status()));
   return 0;
}
