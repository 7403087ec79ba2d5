#pragma once
// One POSIX shared-memory object, mapped. The writer creates or re-opens it
// read-write; readers open it read-only, so that nothing a reader does can
// change it.
#include "pond/TruncationGuard.h"
#include "sys/Fd.h"

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>

namespace Pond {

class Segment {
 public:
   Segment() = default;
   Segment(Segment&& o) noexcept;
   Segment& operator=(Segment&& o) noexcept;
   Segment(const Segment&) = delete;
   Segment& operator=(const Segment&) = delete;
   ~Segment();

   // The writer's side: creates the object exclusively (mode, e.g. 0600),
   // sized to `size`. An object already there is reopened only when it is
   // this user's, no wider open than mode and of this size; any other is
   // replaced, or refused (Gant::TableError) where it cannot be removed;
   // with keepOtherSize, one of this user of another size is refused too.
   // Sets `created`. Throws Gant::ErrnoError naming a failed call.
   static Segment openForWriter(const std::string& name, std::size_t size, mode_t mode, bool& created,
                                bool keepOtherSize = false);
   // A reader's side: opens read-only and maps all there is, refusing an
   // object smaller than minSize (the header, say). Throws Gant::ErrnoError, or
   // Gant::TableError for a short object. The mapping is guarded: should
   // the object shrink later, reads past its end see zeros, not SIGBUS.
   static Segment openForReader(const std::string& name, std::size_t minSize);

   void* base() const noexcept { return base_; }
   std::size_t size() const noexcept { return size_; }
   int fd() const noexcept { return fd_.get(); }
   const std::string& name() const noexcept { return name_; }
   // The object's owner and mode when it was opened.
   uid_t owner() const noexcept { return owner_; }
   mode_t mode() const noexcept { return mode_; }
   // The mapping lost pages to a truncation (zeros stand in for them).
   bool truncated() const noexcept { return guard_ && guard_->tripped(); }
   // Readable once truncated(); -1 when the mapping is not guarded.
   int truncationFd() const noexcept { return guard_ ? guard_->fd() : -1; }

   // Removes the name; mappings stay valid until unmapped.
   static void unlink(const std::string& name);

 private:
   void release() noexcept;

   std::string name_;
   Sys::Fd fd_;
   void* base_ = nullptr;
   std::size_t size_ = 0;
   uid_t owner_ = 0;
   mode_t mode_ = 0;
   std::unique_ptr<TruncationGuard> guard_;
};

} // namespace Pond
