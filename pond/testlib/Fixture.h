#pragma once
// Shared pieces of the table tests: a unique table per test, and a handler
// that records what a reader hears.
#include "loop/EpollLoop.h"
#include "pond/Map.h"
#include "pond/testlib/Item.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

namespace Pond::Test {

inline Options uniqueOptions() {
   static int n = 0;
   Options o;
   o.prefix = "mcastfib-test-" + std::to_string(::getpid()) + "-" + std::to_string(++n);
   return o;
}

inline TableShape itemShape(uint32_t capacity = 64, uint32_t queueLength = 0) {
   return {"Pond::Test::ItemTable", {Record<Item>::shape("item", capacity, queueLength)}};
}

// Kills and reaps a child process when the test ends, however it ends.
struct KillOnExit {
   pid_t pid;
   ~KillOnExit() {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
   }
};

// A Unix socket of the wake channel's kind at `path`: a listening one (not
// blocking), or one connected to it. -1 when that fails.
inline int unixSocket(const std::string& path, bool listening) {
   const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | (listening ? SOCK_NONBLOCK : 0), 0);
   sockaddr_un a{};
   a.sun_family = AF_UNIX;
   std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
   auto* addr = reinterpret_cast<sockaddr*>(&a);
   if (listening ? ::bind(fd, addr, sizeof a) == 0 && ::listen(fd, 8) == 0 : ::connect(fd, addr, sizeof a) == 0)
      return fd;
   ::close(fd);
   return -1;
}

// Exit code of a child process, or 100 + the signal that ended it; serves
// `loop` while waiting, if given.
inline int exitCode(pid_t pid, Loop::EpollLoop* loop = nullptr) {
   int status = 0;
   if (!loop) ::waitpid(pid, &status, 0);
   else while (::waitpid(pid, &status, WNOHANG) == 0) loop->runOnce(0.01);
   return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

struct Recorder : TableHandler {
   std::vector<uint32_t> changed;
   int ready = 0, gone = 0;
   std::vector<std::string> corrupt;
   void onChange(std::size_t, const void* key) override { changed.push_back(keyOf<Item>(key)); }
   void onReady() override { ++ready; }
   void onWriterGone() override { ++gone; }
   void onCorrupt(const std::string& what) override { corrupt.push_back(what); }
};

} // namespace Pond::Test
