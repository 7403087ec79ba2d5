#include "sys/Calls.h"

#include "gant/Error.h"

#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace Sys {

long check(const Result& r, const char* call) {
   if (!r.ok()) throw Gant::ErrnoError(call, r.err);
   return r.value;
}

Result Calls::open(const char* path, int flags, mode_t mode) {
   return retryEintr([&] { return ::open(path, flags, mode); });
}
Result Calls::close(int fd) {
   return once([&] { return ::close(fd); });
}
Result Calls::read(int fd, void* buf, size_t len) {
   return retryEintr([&] { return ::read(fd, buf, len); });
}
Result Calls::write(int fd, const void* buf, size_t len) {
   return retryEintr([&] { return ::write(fd, buf, len); });
}
Result Calls::ioctl(int fd, unsigned long request, void* arg) {
   return retryEintr([&] { return ::ioctl(fd, request, arg); });
}
Result Calls::fcntl(int fd, int cmd, long arg) {
   return retryEintr([&] { return ::fcntl(fd, cmd, arg); });
}
Result Calls::fcntlLock(int fd, int cmd, struct flock* lock) {
   return retryEintr([&] { return ::fcntl(fd, cmd, lock); });
}
Result Calls::flock(int fd, int operation) {
   return retryEintr([&] { return ::flock(fd, operation); });
}
Result Calls::ftruncate(int fd, off_t length) {
   return retryEintr([&] { return ::ftruncate(fd, length); });
}
Result Calls::fstat(int fd, struct stat* st) {
   return retryEintr([&] { return ::fstat(fd, st); });
}

Result Calls::socket(int domain, int type, int protocol) {
   return retryEintr([&] { return ::socket(domain, type, protocol); });
}
Result Calls::bind(int fd, const sockaddr* addr, socklen_t len) {
   return retryEintr([&] { return ::bind(fd, addr, len); });
}
Result Calls::listen(int fd, int backlog) {
   return retryEintr([&] { return ::listen(fd, backlog); });
}
Result Calls::accept4(int fd, sockaddr* addr, socklen_t* len, int flags) {
   return retryEintr([&] { return ::accept4(fd, addr, len, flags); });
}
Result Calls::fchmod(int fd, mode_t mode) {
   return retryEintr([&] { return ::fchmod(fd, mode); });
}
Result Calls::lstat(const char* path, struct stat* st) {
   return retryEintr([&] { return ::lstat(path, st); });
}
Result Calls::chmod(const char* path, mode_t mode) {
   return retryEintr([&] { return ::chmod(path, mode); });
}
Result Calls::getdents64(int fd, void* buf, size_t len) {
   return retryEintr([&] { return ::syscall(SYS_getdents64, fd, buf, len); });
}
Result Calls::inotify_init1(int flags) {
   return once([&] { return ::inotify_init1(flags); });
}
Result Calls::inotify_add_watch(int fd, const char* path, uint32_t mask) {
   return retryEintr([&] { return ::inotify_add_watch(fd, path, mask); });
}

std::vector<std::string> directoryNames(const char* path) {
   Calls& sys = calls();
   const int fd = static_cast<int>(check(sys.open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0), "open"));
   std::vector<std::string> names;
   alignas(8) char buf[8192];
   for (;;) {
      const Result r = sys.getdents64(fd, buf, sizeof buf);
      if (!r.ok()) {
         discard(sys.close(fd));
         check(r, "getdents64");
      }
      if (r.value == 0) break;
      for (long at = 0; at < r.value;) {
         // struct linux_dirent64: ino (8), off (8), reclen (2), type (1), name.
         uint16_t reclen;
         std::memcpy(&reclen, buf + at + 16, sizeof reclen);
         const char* name = buf + at + 19;
         if (std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0) names.emplace_back(name);
         at += reclen;
      }
   }
   discard(sys.close(fd));
   return names;
}

Result Calls::unlink(const char* path) {
   return retryEintr([&] { return ::unlink(path); });
}
Result Calls::connect(int fd, const sockaddr* addr, socklen_t len) {
   return once([&] { return ::connect(fd, addr, len); });
}
Result Calls::setsockopt(int fd, int level, int name, const void* value, socklen_t len) {
   return retryEintr([&] { return ::setsockopt(fd, level, name, value, len); });
}
Result Calls::getsockopt(int fd, int level, int name, void* value, socklen_t* len) {
   return retryEintr([&] { return ::getsockopt(fd, level, name, value, len); });
}
Result Calls::recvmsg(int fd, msghdr* msg, int flags) {
   return retryEintr([&] { return ::recvmsg(fd, msg, flags); });
}
Result Calls::recvfrom(int fd, void* buf, size_t len, int flags, sockaddr* from,
                       socklen_t* fromLen) {
   return retryEintr([&] { return ::recvfrom(fd, buf, len, flags, from, fromLen); });
}
Result Calls::sendmsg(int fd, const msghdr* msg, int flags) {
   return retryEintr([&] { return ::sendmsg(fd, msg, flags); });
}
Result Calls::sendto(int fd, const void* buf, size_t len, int flags, const sockaddr* to,
                     socklen_t toLen) {
   return retryEintr([&] { return ::sendto(fd, buf, len, flags, to, toLen); });
}

Result Calls::epoll_create1(int flags) {
   return retryEintr([&] { return ::epoll_create1(flags); });
}
Result Calls::epoll_ctl(int epfd, int op, int fd, epoll_event* event) {
   return retryEintr([&] { return ::epoll_ctl(epfd, op, fd, event); });
}
Result Calls::epoll_wait(int epfd, epoll_event* events, int maxEvents, int timeoutMs) {
   return retryEintr([&] { return ::epoll_wait(epfd, events, maxEvents, timeoutMs); });
}
Result Calls::eventfd(unsigned initialValue, int flags) {
   return retryEintr([&] { return ::eventfd(initialValue, flags); });
}

Result Calls::pipe2(int fds[2], int flags) {
   return retryEintr([&] { return ::pipe2(fds, flags); });
}

Result Calls::shm_open(const char* name, int flags, mode_t mode) {
   return retryEintr([&] { return ::shm_open(name, flags, mode); });
}
Result Calls::shm_unlink(const char* name) {
   return retryEintr([&] { return ::shm_unlink(name); });
}
Result Calls::mmap(void* addr, size_t len, int prot, int flags, int fd, off_t offset) {
   // MAP_FAILED is the address -1, so the -1 convention of the helper holds.
   return retryEintr(
       [&] { return reinterpret_cast<long>(::mmap(addr, len, prot, flags, fd, offset)); });
}
Result Calls::munmap(void* addr, size_t len) {
   return retryEintr([&] { return ::munmap(addr, len); });
}

Result Calls::setns(int fd, int nsType) {
   return retryEintr([&] { return ::setns(fd, nsType); });
}
Result Calls::getpid() {
   return once([] { return ::getpid(); });
}
Result Calls::pollNow(int fd, short events, short& revents) {
   pollfd p{fd, events, 0};
   Result r = retryEintr([&] { return ::poll(&p, 1, 0); });
   revents = p.revents;
   return r;
}
Result Calls::gettid() {
   return once([] { return static_cast<long>(::gettid()); });
}
Result Calls::geteuid() {
   return once([] { return static_cast<long>(::geteuid()); });
}
Result Calls::kill(pid_t pid, int sig) {
   return retryEintr([&] { return ::kill(pid, sig); });
}
Result Calls::sigaction(int sig, const struct sigaction* action, struct sigaction* previous) {
   return once([&] { return ::sigaction(sig, action, previous); });
}
Result Calls::nanosleep(long ns) {
   return once([&] { return ::usleep(static_cast<useconds_t>(ns / 1000)); });
}

namespace {
// Never destroyed: descriptors owned by other static objects are closed
// through it during exit.
Calls* realCalls() {
   static Calls* real = new Calls;
   return real;
}
Calls* current = nullptr;
} // namespace

Calls& calls() noexcept {
   return current ? *current : *realCalls();
}

ScopedCalls::ScopedCalls(Calls& replacement) noexcept : previous_(current) {
   current = &replacement;
}

ScopedCalls::~ScopedCalls() {
   current = previous_;
}

} // namespace Sys
