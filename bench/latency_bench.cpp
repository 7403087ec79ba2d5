// Change notification between two processes: from the writer's commit to
// the reader's callback, beside a raw eventfd wake-up between the same two
// processes measured the same way (one-way, CLOCK_MONOTONIC, the receiver
// asleep before each send).
#include "loop/EpollLoop.h"
#include "pond/testlib/Burst.h"
#include "pond/testlib/Fixture.h"

#include <benchmark/benchmark.h>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <vector>

namespace {

constexpr int kSamples = 3000;

// The monotonic clock: the same in both processes.
uint64_t nowNs() {
   return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                       std::chrono::steady_clock::now().time_since_epoch())
                       .count());
}

// Shared between the two processes: the send time of each sample and the
// latency the receiver measured.
struct Shared {
   uint64_t sentAt[kSamples];
   uint64_t latency[kSamples];
};

Shared* sharedBlock() {
   void* p = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
   return static_cast<Shared*>(p);
}

// Lets the receiver fall asleep before the next send.
void pause20us() {
   uint64_t until = nowNs() + 20000;
   while (nowNs() < until) {
   }
}

void report(benchmark::State& state, Shared* s) {
   std::vector<uint64_t> v(s->latency, s->latency + kSamples);
   std::sort(v.begin(), v.end());
   state.counters["median_us"] = double(v[v.size() / 2]) / 1000.0;
   state.counters["p99_us"] = double(v[v.size() * 99 / 100]) / 1000.0;
}

void readU64(int fd) {
   uint64_t x;
   while (read(fd, &x, sizeof x) != sizeof x) {
   }
}

void writeU64(int fd) {
   uint64_t x = 1;
   (void)!write(fd, &x, sizeof x);
}

void BM_NotifyLatency_RawEventfd(benchmark::State& state) {
   for (auto _ : state) {
      Shared* s = sharedBlock();
      int wake = eventfd(0, EFD_CLOEXEC);
      int ready = eventfd(0, EFD_CLOEXEC);
      pid_t pid = fork();
      if (pid == 0) {
         int ep = epoll_create1(0);
         epoll_event ev{};
         ev.events = EPOLLIN;
         epoll_ctl(ep, EPOLL_CTL_ADD, wake, &ev);
         for (int i = 0; i < kSamples; ++i) {
            writeU64(ready);
            epoll_event out;
            while (epoll_wait(ep, &out, 1, -1) != 1) {
            }
            readU64(wake);
            s->latency[i] = nowNs() - s->sentAt[i];
         }
         _exit(0);
      }
      for (int i = 0; i < kSamples; ++i) {
         readU64(ready);
         pause20us();
         s->sentAt[i] = nowNs();
         writeU64(wake);
      }
      waitpid(pid, nullptr, 0);
      report(state, s);
      close(wake);
      close(ready);
      munmap(s, sizeof(Shared));
   }
}
BENCHMARK(BM_NotifyLatency_RawEventfd)->Iterations(1)->Unit(benchmark::kMicrosecond);

void BM_NotifyLatency_SharedTable(benchmark::State& state) {
   using namespace Pond;
   using namespace Pond::Test;
   for (auto _ : state) {
      Shared* s = sharedBlock();
      Options options = uniqueOptions();
      TableShape shape = itemShape(64);
      Loop::EpollLoop loop;
      TableWriter writer("bench/latency", shape, {Record<Item>::codec()}, &loop, options);
      MapWriter<Item> items(writer.collection(0));
      pid_t pid = fork();
      if (pid == 0) {
         struct Timer : TableHandler {
            Shared* s;
            int got = 0;
            void onChange(std::size_t, const void* k) override {
               if (keyOf<Item>(k) != 1) return;
               s->latency[got] = nowNs() - s->sentAt[got];
               ++got;
            }
         } timer;
         timer.s = s;
         Loop::EpollLoop readerLoop;
         TableReader reader("bench/latency", shape, {Record<Item>::codec()}, readerLoop, timer, options);
         readerLoop.runUntil([&] { return timer.got == kSamples; }, 60);
         _exit(timer.got == kSamples ? 0 : 1);
      }
      for (int i = 0; i < kSamples; ++i) {
         // The reader has caught up and sleeps once the writer holds its ack.
         loop.runUntil([&] { return writer.armedReaders() == 1; }, 10);
         pause20us();
         s->sentAt[i] = nowNs();
         items.set(Item::make(1, uint32_t(i + 1)));
      }
      int status = 0;
      while (waitpid(pid, &status, WNOHANG) == 0) loop.runOnce(0.001);
      if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) state.SkipWithError("reader failed");
      report(state, s);
      writer.unlink();
      munmap(s, sizeof(Shared));
   }
}
BENCHMARK(BM_NotifyLatency_SharedTable)->Iterations(1)->Unit(benchmark::kMicrosecond);

// A burst of 1000 changes while the reader sleeps: how many wake-ups it takes.
void BM_BurstWakeups(benchmark::State& state) {
   for (auto _ : state) {
      const Pond::Test::BurstSeen seen = Pond::Test::burstIntoSleepingReader("bench/burst", 1000);
      if (!seen.ok) state.SkipWithError("reader failed");
      state.counters["changes"] = double(seen.changes);
      state.counters["wakeups"] = double(seen.wakeups);
   }
}
BENCHMARK(BM_BurstWakeups)->Iterations(1)->Unit(benchmark::kMicrosecond);

} // namespace
