#pragma once
// The system-call seam as the upcall tests need it, installed for the
// object's lifetime. Every call is the real one, except that:
// - the IPv4 notification options (level IPPROTO_IP, 211, 213 and 214),
//   which a stock kernel refuses, succeed and are recorded;
// - socket(AF_INET, SOCK_RAW, IPPROTO_RAW) can be answered with a socket the
//   test made (a stock IGMP mroute socket, so that real upcalls flow);
// - one chosen call can be made to fail.
#include "sys/Calls.h"
#include "sys/Fd.h"

#include <utility>
#include <vector>

namespace Routing::Multicast::Notify::Test {

class NotifyCalls : public Sys::Calls {
 public:
   // The call to fail: "socket", "bind" or "setsockopt"; for setsockopt the
   // level and option, and the int value unless it is anyValue.
   struct Fault {
      static constexpr int anyValue = -1;
      const char* call = nullptr;
      int level = 0, name = 0, value = anyValue;
      int err = 0;
   };

   NotifyCalls() : scope_(*this) {}

   // (option, value) of each notification option set, in order.
   std::vector<std::pair<int, int>> notifyOptions;
   // Descriptors returned by socket() and given to close(), in order.
   std::vector<int> opened, closed;
   Fault fault;
   // Handed out, once, for the next raw IPv4 socket asked for.
   Sys::Fd rawSocket;

   Sys::Result socket(int domain, int type, int protocol) override;
   Sys::Result bind(int fd, const sockaddr* addr, socklen_t len) override;
   Sys::Result setsockopt(int fd, int level, int name, const void* value, socklen_t len) override;
   Sys::Result close(int fd) override;

 private:
   Sys::ScopedCalls scope_;
};

} // namespace Routing::Multicast::Notify::Test
