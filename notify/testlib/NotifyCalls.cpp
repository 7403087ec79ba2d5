#include "notify/testlib/NotifyCalls.h"

#include <netinet/in.h>

#include <cstring>
#include <string_view>

namespace Routing::Multicast::Notify::Test {

Sys::Result NotifyCalls::socket(int domain, int type, int protocol) {
   if (fault.call && std::string_view(fault.call) == "socket") return {-1, fault.err};
   Sys::Result r;
   const int base = type & ~(SOCK_CLOEXEC | SOCK_NONBLOCK);
   if (domain == AF_INET && base == SOCK_RAW && protocol == IPPROTO_RAW && rawSocket)
      r = {rawSocket.release(), 0};
   else
      r = Calls::socket(domain, type, protocol);
   if (r.ok()) opened.push_back(int(r.value));
   return r;
}

Sys::Result NotifyCalls::bind(int fd, const sockaddr* addr, socklen_t len) {
   if (fault.call && std::string_view(fault.call) == "bind") return {-1, fault.err};
   return Calls::bind(fd, addr, len);
}

Sys::Result NotifyCalls::setsockopt(int fd, int level, int name, const void* value, socklen_t len) {
   int v = Fault::anyValue;
   if (len == sizeof v) std::memcpy(&v, value, sizeof v);
   if (fault.call && std::string_view(fault.call) == "setsockopt" && level == fault.level && name == fault.name &&
       (fault.value == Fault::anyValue || fault.value == v))
      return {-1, fault.err};
   if (level == IPPROTO_IP && (name == 211 || name == 213 || name == 214)) {
      notifyOptions.emplace_back(name, v);
      return {0, 0};
   }
   return Calls::setsockopt(fd, level, name, value, len);
}

Sys::Result NotifyCalls::close(int fd) {
   closed.push_back(fd);
   return Calls::close(fd);
}

} // namespace Routing::Multicast::Notify::Test
