#pragma once
// Sockets opened inside a named network namespace.
#include "platform/NamespaceName.h"
#include "sys/Result.h"

namespace Pakto {

// The directory where named network namespaces are bound.
inline constexpr const char* netnsDir = "/var/run/netns";

// socket(domain, type, protocol) inside namespace ns (the process's own when
// ns is empty): the thread enters ns, opens the socket and returns to its
// namespace. The result carries the descriptor or the failed call's errno.
Sys::Result openSocket(const NamespaceName& ns, int domain, int type, int protocol);

} // namespace Pakto
