// A separate project using the installed library through its umbrella header.
#include <mcastfib.h>

#include <iostream>

int main() {
   Pakto::IntfId intf("Ethernet3");
   std::cout << intf << "\n";
   return intf.name() == "Ethernet3" ? 0 : 1;
}
