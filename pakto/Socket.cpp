#include "pakto/Socket.h"

#include "gant/Assert.h"
#include "sys/Calls.h"

#include <fcntl.h>
#include <sched.h>

#include <string>

namespace Pakto {

Sys::Result openInNamespace(const NamespaceName& ns, const std::function<Sys::Result()>& open) {
   Sys::Calls& sys = Sys::calls();
   if (ns.str().empty()) return open();
   const Sys::Result home = sys.open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC, 0);
   if (!home.ok()) return home;
   const std::string path = std::string(netnsDir) + "/" + std::string(ns.str());
   const Sys::Result target = sys.open(path.c_str(), O_RDONLY | O_CLOEXEC, 0);
   if (!target.ok()) {
      Sys::discard(sys.close(int(home.value)));
      return target;
   }
   Sys::Result fd = sys.setns(int(target.value), CLONE_NEWNET);
   if (fd.ok()) {
      fd = open();
      // Staying in the other namespace would move every later socket of
      // this thread there: failing to return is a broken invariant.
      const Sys::Result back = sys.setns(int(home.value), CLONE_NEWNET);
      GANT_ASSERT(back.ok() && "could not return to the thread's own network namespace");
   }
   Sys::discard(sys.close(int(target.value)));
   Sys::discard(sys.close(int(home.value)));
   return fd;
}

Sys::Result openSocket(const NamespaceName& ns, int domain, int type, int protocol) {
   return openInNamespace(ns, [&] { return Sys::calls().socket(domain, type | SOCK_CLOEXEC, protocol); });
}

Sys::Result openFile(const NamespaceName& ns, const char* path) {
   // /proc/net follows the process's first thread; the calling thread's
   // namespace is the one entered.
   std::string own = path;
   if (own.starts_with("/proc/net/")) own = "/proc/thread-self/net/" + own.substr(10);
   return openInNamespace(ns, [&] { return Sys::calls().open(own.c_str(), O_RDONLY | O_CLOEXEC, 0); });
}

} // namespace Pakto
