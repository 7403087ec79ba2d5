#include "pond/TruncationGuard.h"

#include "flashlog/Flashlog.h"
#include "sys/Calls.h"

#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <mutex>
#include <new>

namespace Pond {

struct TruncationGuard::Entry {
   std::atomic<bool> claimed{false};
   std::atomic<uintptr_t> begin{0};
   std::atomic<uintptr_t> end{0};
   std::atomic<int> fd{-1};
   std::atomic<bool> writable{false};
   std::atomic<bool> tripped{false};
};

namespace {

Flashlog::Handle& trace = Flashlog::handle("Pond");

// The registry the handler reads: lock-free, so that a handler can read it
// at any instant. A static first chunk, then chunks allocated by
// registration (never in the handler), each twice the last so the handler
// walks few of them, linked by atomic pointers and never freed: a handler
// may be walking one at any time. Registration claims an entry, fills it,
// then publishes begin; removal clears begin first, and the entry is reused.
struct Chunk {
   TruncationGuard::Entry* entries;
   std::size_t count;
   std::atomic<Chunk*> next{nullptr};
};
constexpr std::size_t kFirstChunk = 64;
TruncationGuard::Entry firstEntries[kFirstChunk];
Chunk firstChunk{firstEntries, kFirstChunk};

TruncationGuard::Entry* claim() {
   for (Chunk* c = &firstChunk;;) {
      for (std::size_t i = 0; i < c->count; ++i) {
         bool expected = false;
         if (c->entries[i].claimed.compare_exchange_strong(expected, true)) return &c->entries[i];
      }
      Chunk* next = c->next.load(std::memory_order_acquire);
      if (!next) {
         const std::size_t count = 2 * c->count;
         auto* entries = new (std::nothrow) TruncationGuard::Entry[count];
         auto* grown = entries ? new (std::nothrow) Chunk{entries, count} : nullptr;
         if (!grown) {
            delete[] entries;
            return nullptr;
         }
         // Two threads may grow at once: one chunk is linked, the other was
         // never seen by anyone and goes.
         if (c->next.compare_exchange_strong(next, grown, std::memory_order_acq_rel)) {
            next = grown;
         } else {
            delete[] entries;
            delete grown;
         }
      }
      c = next;
   }
}

struct sigaction previous;
uintptr_t pageMask;
std::once_flag installed;

// Hands a SIGBUS that is not ours on as if this handler were not there.
void passOn(int sig, siginfo_t* info, void* context) {
   if (previous.sa_flags & SA_SIGINFO) {
      if (previous.sa_sigaction) return previous.sa_sigaction(sig, info, context);
   } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
      return previous.sa_handler(sig);
   }
   // The default action: the signal stays blocked until we return, then
   // kills the process as it would have without us.
   struct sigaction dfl{};
   dfl.sa_handler = SIG_DFL;
   sigemptyset(&dfl.sa_mask);
   ::sigaction(sig, &dfl, nullptr);
   ::raise(sig);
}

// Only async-signal-safe calls, made directly: the system-call seam is for
// the loop's code, not for a handler that may interrupt it.
void onSigbus(int sig, siginfo_t* info, void* context) {
   const int savedErrno = errno;
   const auto addr = reinterpret_cast<uintptr_t>(info->si_addr);
   if (info->si_code == BUS_ADRERR) {
      for (Chunk* c = &firstChunk; c; c = c->next.load(std::memory_order_acquire)) {
         for (std::size_t i = 0; i < c->count; ++i) {
            TruncationGuard::Entry& e = c->entries[i];
            const uintptr_t begin = e.begin.load(std::memory_order_acquire);
            const uintptr_t end = e.end.load(std::memory_order_relaxed);
            if (begin == 0 || addr < begin || addr >= end) continue;
            const uintptr_t page = addr & pageMask;
            const int prot = e.writable.load(std::memory_order_relaxed) ? PROT_READ | PROT_WRITE : PROT_READ;
            void* zeros = ::mmap(reinterpret_cast<void*>(page), end - page, prot,
                                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
            if (zeros == MAP_FAILED) break;
            e.tripped.store(true, std::memory_order_release);
            const uint64_t one = 1;
            if (const int fd = e.fd.load(std::memory_order_relaxed); fd >= 0) (void)!::write(fd, &one, sizeof one);
            errno = savedErrno;
            return;
         }
      }
   }
   errno = savedErrno;
   passOn(sig, info, context);
}

void install() {
   pageMask = ~(static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE)) - 1);
   struct sigaction action{};
   action.sa_sigaction = onSigbus;
   action.sa_flags = SA_SIGINFO | SA_ONSTACK;
   sigemptyset(&action.sa_mask);
   Sys::check(Sys::calls().sigaction(SIGBUS, &action, &previous), "sigaction");
}

} // namespace

TruncationGuard::TruncationGuard(const void* base, std::size_t size, bool writable) {
   std::call_once(installed, install);
   entry_ = claim();
   if (!entry_) {
      FLASHLOG(trace, 1, "no memory to guard a mapping of ", size, " bytes against truncation");
      return;
   }
   Sys::Result fd = Sys::calls().eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
   if (fd.ok()) event_.reset(static_cast<int>(fd.value));
   Entry& e = *entry_;
   e.tripped.store(false, std::memory_order_relaxed);
   e.writable.store(writable, std::memory_order_relaxed);
   e.fd.store(event_.get(), std::memory_order_relaxed);
   e.end.store(reinterpret_cast<uintptr_t>(base) + size, std::memory_order_relaxed);
   e.begin.store(reinterpret_cast<uintptr_t>(base), std::memory_order_release);
}

TruncationGuard::~TruncationGuard() {
   if (!entry_) return;
   entry_->begin.store(0, std::memory_order_release);
   entry_->fd.store(-1, std::memory_order_release);
   entry_->claimed.store(false, std::memory_order_release);
}

bool TruncationGuard::tripped() const noexcept {
   return entry_ && entry_->tripped.load(std::memory_order_acquire);
}

} // namespace Pond
