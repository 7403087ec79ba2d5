#include "group/Group.h"

namespace Multicast::Group {

// By iterator, for a client that walks its members and drops some: the key
// is copied first, since erasing frees the node it lives in.
void Request::portVlanDel(Gant::OrderedMap<MrouteLib::PortVlan, bool>::const_iterator it) {
   const MrouteLib::PortVlan key = it->first;
   portVlanDel(key);
}

} // namespace Multicast::Group
