#pragma once
// Keeps a process alive when the file behind its shared mapping shrinks
// under it. Touching a page past the file's new end raises SIGBUS; for a
// guarded range the process's handler maps zero-filled private pages over
// the rest of the range instead, marks the guard tripped and signals its
// eventfd, and the access goes on, reading zeros. The owner then learns of
// it on its loop. SIGBUS of any other origin goes to the handler that was
// installed before, or to the default action. (A host that installs its own
// SIGBUS handler after the first guard takes this protection away.)
#include "sys/Fd.h"

#include <cstddef>

namespace Pond {

class TruncationGuard {
 public:
   // Guards [base, base + size), a whole mapping. A writable guard is for a
   // read-write mapping: the pages put over the lost range take stores too,
   // so a writer's later stores land in private memory rather than kill it.
   // Any number of guards may be live; only a failed allocation leaves the
   // range unguarded (traced).
   TruncationGuard(const void* base, std::size_t size, bool writable = false);
   ~TruncationGuard();
   TruncationGuard(const TruncationGuard&) = delete;
   TruncationGuard& operator=(const TruncationGuard&) = delete;

   bool tripped() const noexcept;
   // Readable once the guard has tripped.
   int fd() const noexcept { return event_.get(); }

   // One guard's place in the process's registry (TruncationGuard.cpp).
   struct Entry;

 private:
   Entry* entry_ = nullptr;
   Sys::Fd event_;
};

} // namespace Pond
