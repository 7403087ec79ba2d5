#pragma once
// What the upcall sockets' sources share: their trace and a hexadecimal
// number for it.
#include "flashlog/Flashlog.h"

#include <cstdint>
#include <ostream>

namespace Routing::Multicast::Notify {

inline Flashlog::Handle& pamTrace = Flashlog::handle("Mroute::MrtNotifyPam");

struct Hex {
   uint64_t v;
};
inline std::ostream& operator<<(std::ostream& os, Hex h) {
   const auto flags = os.flags();
   os << std::hex << h.v;
   os.flags(flags);
   return os;
}

} // namespace Routing::Multicast::Notify
