#pragma once
// Sockets (and files whose content depends on the network namespace, such
// as those under /proc/net) opened inside a named network namespace.
#include "platform/NamespaceName.h"
#include "sys/Result.h"

#include <functional>

namespace Pakto {

// The directory where named network namespaces are bound.
inline constexpr const char* netnsDir = "/var/run/netns";

// Runs open() inside namespace ns (the thread's own when ns is empty): the
// thread enters ns, opens and returns to its namespace. The result is
// open()'s, or the errno of entering the namespace.
Sys::Result openInNamespace(const NamespaceName& ns, const std::function<Sys::Result()>& open);

// socket(domain, type, protocol) inside namespace ns, close-on-exec.
Sys::Result openSocket(const NamespaceName& ns, int domain, int type, int protocol);

// A file as the namespace sees it (/proc/net/...), read-only; "/proc/net"
// paths are read through the thread's own view.
Sys::Result openFile(const NamespaceName& ns, const char* path);

} // namespace Pakto
