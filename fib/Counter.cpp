#include "fib/Counter.h"

namespace Routing::Multicast::Fib {

// The group first, deliberately the reverse of the key's own order.
Gant::String Counter::pondString() const {
   Gant::String out = "[";
   out += Gant::toText(key_.g());
   out += ',';
   out += Gant::toText(key_.s());
   out += "] ";
   out += std::to_string(value_);
   return out;
}

} // namespace Routing::Multicast::Fib
