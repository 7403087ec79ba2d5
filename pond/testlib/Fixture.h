#pragma once
// Shared pieces of the table tests: a unique table per test, and a handler
// that records what a reader hears.
#include "loop/EpollLoop.h"
#include "pond/Map.h"
#include "pond/testlib/Item.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace Pond::Test {

inline Options uniqueOptions() {
   static int n = 0;
   Options o;
   // The pid alone is not enough: a segment a killed test process left
   // behind would meet a later process given the same pid.
   static const std::string run = std::to_string(::getpid()) + "-" + std::to_string(std::random_device()() % 1000000);
   o.prefix = "mcastfib-test-" + run + "-" + std::to_string(++n);
   return o;
}

inline TableShape itemShape(uint32_t capacity = 64, uint32_t queueLength = 0) {
   return {"Pond::Test::ItemTable", {Record<Item>::shape("item", capacity, queueLength)}};
}

// A table test: its loop, a table of its own (removed at the end), and a
// turn of the loop long enough for whatever is pending to be delivered.
struct TableTest : ::testing::Test {
   Loop::EpollLoop loop;
   Options options = uniqueOptions();
   std::string path = "routing/multicast/routestatus/default/test";
   std::string name = segmentName(options.prefix, path);
   void settle() {
      for (int i = 0; i < 20; ++i) loop.runOnce(0.01);
   }
   void TearDown() override { Segment::unlink(name); }
};

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

// Follows a table of items as a reader process would: looks up each key it
// is told of, remembers its version, and notes torn records, damage and the
// done record, whose version is the final version of every key.
struct Follower : TableHandler {
   static constexpr uint32_t kDone = 0xffffffff;
   TableReader* reader = nullptr;
   std::map<uint32_t, uint32_t> known; // key -> version, updated on notifications only
   bool torn = false, done = false, corrupt = false;
   int gone = 0;
   void onChange(std::size_t, const void* k) override {
      const uint32_t key = keyOf<Item>(k);
      auto f = MapReader<Item>(reader->collection(0)).find(key);
      if (f.status == ReadStatus::found) {
         torn |= !f->whole();
         known[key] = f->version();
         done |= key == kDone;
      } else if (f.status == ReadStatus::absent) {
         known.erase(key);
      } else if (f.status == ReadStatus::corrupt) {
         corrupt = true;
      } // stuck: its writer died mid-write; the restarted writer repairs it
   }
   void onWriterGone() override { ++gone; }
   void onCorrupt(const std::string&) override { corrupt = true; }
   bool finished() const { return done || torn || corrupt; }
   // 0 when all `keys` keys and the done record are known, each at the final
   // version; else 2 no done record, 3 torn, 4 damaged, 5 or 6 a lost change.
   int verdict(uint32_t keys) const {
      if (torn || corrupt || !done) return torn ? 3 : corrupt ? 4 : 2;
      if (known.size() != keys + 1) return 5;
      const uint32_t final = known.at(kDone);
      for (const auto& [key, version] : known)
         if (version != final) {
            std::fprintf(stderr, "reader %d: key %u at version %u, not %u (resyncs %llu)\n", int(::getpid()), key,
                         version, final, (unsigned long long)reader->resyncs());
            return 6;
         }
      return 0;
   }
};

} // namespace Pond::Test
