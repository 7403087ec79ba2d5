#pragma once
// The system-call seam. Every system call of the library goes through
// Sys::calls(), so that a test can make one call fail in a way the kernel will
// not on demand (a failing setsockopt, a full descriptor table), while
// production runs the real calls.
//
// Calls itself is the real implementation; a fake derives from it and
// overrides only the calls it wants to change. A method is named after its
// call; the second argument form of fcntl is fcntlLock.
#include "sys/Result.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>


namespace Sys {

class Calls {
 public:
   Calls() = default;
   Calls(const Calls&) = delete;
   Calls& operator=(const Calls&) = delete;
   virtual ~Calls() = default;

   // Descriptors and files.
   virtual Result open(const char* path, int flags, mode_t mode);
   // Never retried: after EINTR the descriptor is already gone on Linux, and
   // a second close could close a descriptor another part has just opened.
   virtual Result close(int fd);
   virtual Result read(int fd, void* buf, size_t len);
   virtual Result write(int fd, const void* buf, size_t len);
   virtual Result ioctl(int fd, unsigned long request, void* arg);
   virtual Result fcntl(int fd, int cmd, long arg);
   virtual Result fcntlLock(int fd, int cmd, struct flock* lock);
   virtual Result flock(int fd, int operation);
   virtual Result ftruncate(int fd, off_t length);
   virtual Result fstat(int fd, struct stat* st);
   virtual Result unlink(const char* path);
   virtual Result fchmod(int fd, mode_t mode);
   virtual Result lstat(const char* path, struct stat* st);
   virtual Result chmod(const char* path, mode_t mode);
   // Entries of the directory open at fd, as struct linux_dirent64 records.
   virtual Result getdents64(int fd, void* buf, size_t len);
   virtual Result inotify_init1(int flags);
   virtual Result inotify_add_watch(int fd, const char* path, uint32_t mask);

   // Sockets.
   virtual Result socket(int domain, int type, int protocol);
   virtual Result bind(int fd, const sockaddr* addr, socklen_t len);
   // Never retried: an interrupted connect goes on in the background, and
   // calling it again would report EALREADY instead of the outcome.
   virtual Result connect(int fd, const sockaddr* addr, socklen_t len);
   virtual Result listen(int fd, int backlog);
   virtual Result accept4(int fd, sockaddr* addr, socklen_t* len, int flags);
   virtual Result setsockopt(int fd, int level, int name, const void* value, socklen_t len);
   virtual Result getsockopt(int fd, int level, int name, void* value, socklen_t* len);
   virtual Result recvmsg(int fd, msghdr* msg, int flags);
   virtual Result recvfrom(int fd, void* buf, size_t len, int flags, sockaddr* from,
                           socklen_t* fromLen);
   virtual Result sendmsg(int fd, const msghdr* msg, int flags);
   virtual Result sendto(int fd, const void* buf, size_t len, int flags, const sockaddr* to,
                         socklen_t toLen);

   // Event sources.
   virtual Result epoll_create1(int flags);
   virtual Result epoll_ctl(int epfd, int op, int fd, epoll_event* event);
   // Retried with the same timeout, so an interrupted wait may last longer
   // than asked; callers bound their waits by the clock, not by this call.
   virtual Result epoll_wait(int epfd, epoll_event* events, int maxEvents, int timeoutMs);
   virtual Result eventfd(unsigned initialValue, int flags);
   // One descriptor's events, now (never waits).
   virtual Result pollNow(int fd, short events, short& revents);
   virtual Result pipe2(int fds[2], int flags);

   // Shared memory.
   virtual Result shm_open(const char* name, int flags, mode_t mode);
   virtual Result shm_unlink(const char* name);
   // value is the mapped address (see Result::pointer), -1 on failure.
   virtual Result mmap(void* addr, size_t len, int prot, int flags, int fd, off_t offset);
   virtual Result munmap(void* addr, size_t len);

   // Process.
   virtual Result setns(int fd, int nsType);
   virtual Result getpid();
   virtual Result geteuid();
   virtual Result gettid();
   // kill(pid, 0) asks whether pid exists (EPERM: it does, as another user).
   virtual Result kill(pid_t pid, int sig);
   virtual Result sigaction(int sig, const struct sigaction* action, struct sigaction* previous);
   // Sleeps for ns nanoseconds (a wait bounded by the clock, not retried).
   virtual Result nanosleep(long ns);
};

// The names in a directory (without "." and ".."); throws Gant::ErrnoError
// naming the failed call.
std::vector<std::string> directoryNames(const char* path);

// The implementation in force for this process: the real calls unless a
// ScopedCalls has installed another.
Calls& calls() noexcept;

// Installs `replacement` for the lifetime of this object and then puts back
// the one it replaced. Scopes nest; destroy them in reverse order.
class ScopedCalls {
 public:
   explicit ScopedCalls(Calls& replacement) noexcept;
   ~ScopedCalls();
   ScopedCalls(const ScopedCalls&) = delete;
   ScopedCalls& operator=(const ScopedCalls&) = delete;

 private:
   Calls* previous_;
};

} // namespace Sys
