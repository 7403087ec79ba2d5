#pragma once
// Shared pieces of the table tests: a unique table per test, and a handler
// that records what a reader hears.
#include "loop/EpollLoop.h"
#include "pond/Map.h"
#include "pond/testlib/Item.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

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
