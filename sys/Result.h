#pragma once
// What a system call returned, without errno: the value, and the error
// number when it failed. Keeping err beside the value means nothing between
// the call and its check can overwrite it. A result is never dropped by
// accident: where a failure changes nothing, discard() says so.
#include <cerrno>

namespace Sys {

struct [[nodiscard]] Result {
   long value = 0; // the call's return value; -1 when it failed
   int err = 0;    // errno of a failed call, 0 on success

   bool ok() const noexcept { return err == 0; }
   // For calls that return an address (mmap); long holds a pointer on both
   // ILP32 and LP64 Linux.
   void* pointer() const noexcept { return reinterpret_cast<void*>(value); }

   bool operator==(const Result&) const = default;
};

// Drops a result on purpose, where a failure changes nothing: a best-effort
// wake-up, a clean-up on a path that is already failing.
inline void discard(const Result&) noexcept {}

// Runs `call` (which returns -1 and sets errno on failure) once more for as
// long as a signal interrupts it. The one place the library retries EINTR.
template <class Call>
Result retryEintr(Call&& call) {
   for (;;) {
      auto r = call();
      if (r != -1) return {static_cast<long>(r), 0};
      if (errno != EINTR) return {-1, errno};
   }
}

// Runs `call` exactly once: for calls where a retry after EINTR is wrong.
template <class Call>
Result once(Call&& call) {
   auto r = call();
   if (r != -1) return {static_cast<long>(r), 0};
   return {-1, errno};
}

// Returns r.value, or throws Gant::ErrnoError naming `call` when r failed.
long check(const Result& r, const char* call);

} // namespace Sys
