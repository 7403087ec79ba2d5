#include "fib/Status.h"

#include <ostream>

namespace Routing::Multicast::Fib {

// The trace form: one letter per forwarding flag. fastdrop and frr have no
// letter, so flags with only those set print as "Flags: " alone.
Gant::String Intf::IntfFlags::shortString() const {
   Gant::String out = "Flags: ";
   if (value() == 0) return out + "None";
   if (forward()) out += 'F';
   if (accept()) out += 'A';
   if (notify()) out += 'N';
   if (noRpf()) out += 'R';
   return out;
}

std::ostream& operator<<(std::ostream& os, const Intf::IntfFlags* flags) {
   return os << flags->shortString();
}

} // namespace Routing::Multicast::Fib
