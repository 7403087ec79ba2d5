// A separate project using the installed library through its umbrella header.
#include <mcastfib.h>

#include <iostream>

int main() {
   Pakto::IntfId intf("Ethernet3");
   auto key = Routing::Multicast::Fib::makeRouteKeyVlanFloodset(10);
   std::cout << intf << " " << key.pretty() << "\n";
   return intf.name() == "Ethernet3" && key.pretty() == "vlan10 Floodset" ? 0 : 1;
}
