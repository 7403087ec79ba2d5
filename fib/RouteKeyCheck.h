#pragma once
// Route keys from outside the process (a command line, a file, bytes met in
// a shared segment), checked rather than asserted: the parse and accessors
// of RouteKey.h stop the process on a malformed key, which suits keys the
// program built itself, not keys a person typed.
#include "fib/RouteKey.h"

#include <optional>
#include <string>
#include <string_view>

namespace Routing::Multicast::Fib {

// The key's kind when its prefixes are laid out as one of the builders lays
// them out, so that kind(), pretty(), the accessors of its kind and (for an
// IPv4 key) the IPv4 text form are safe to call. Empty for anything else: a
// prefix that is no prefix at all, a group of neither family or an IPv6 group
// that is not multicast, a kind nibble of 8 to 13, a VLAN of 0 or 4095, an
// IPv6 source under an IPv4 kind.
std::optional<RouteKeyType> checkedKind(const IpGenRouteKey& key) noexcept;

// The kind of the given name as printed ("vlanFloodset", "mroute"...).
std::optional<RouteKeyType> routeKeyTypeNamed(std::string_view name) noexcept;

// Reads a whole text as a route key, in any form the library writes:
//  - the pretty text: "(10.0.0.1,239.1.1.1)", "(*,ff3e::1)",
//    "(10.0.0.0/8,239.1.1.0/24)", "vlan10 Floodset", "vlan100 01:00:5e:01:02:03",
//    "Mcast Group Kind 19 Index 5", "vlan10 10.1.1.1 EvpnMultihomeFloodset",
//    "Unknown Type"...;
//  - the generic text form, "Value('Routing::Multicast::Fib::IpGenRouteKey', ** {'s': ..., 'g': ...})";
//  - the IPv4 text form of every kind as RouteKey writes it (including the
//    'vlanID' of the EVPN kind and the "'index': " of the group kind, which
//    the asserting parse does not read back) and as that parse reads it.
// Blanks around the text are ignored. Returns the key, or nothing with `why`
// set: never an assertion, never an exception. A key whose prefixes lay out no kind (see checkedKind) is refused.
std::optional<IpGenRouteKey> parseRouteKeyChecked(std::string_view text, std::string& why);

} // namespace Routing::Multicast::Fib
