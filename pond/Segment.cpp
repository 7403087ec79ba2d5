#include "pond/Segment.h"

#include "flashlog/Flashlog.h"
#include "gant/Error.h"
#include "sys/Calls.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace Pond {

namespace {
Flashlog::Handle& trace = Flashlog::handle("Pond");
} // namespace

Segment::Segment(Segment&& o) noexcept
    : name_(std::move(o.name_)), fd_(std::move(o.fd_)), base_(std::exchange(o.base_, nullptr)),
      size_(std::exchange(o.size_, 0)), owner_(o.owner_), mode_(o.mode_), guard_(std::move(o.guard_)) {}

Segment& Segment::operator=(Segment&& o) noexcept {
   if (this != &o) {
      release();
      name_ = std::move(o.name_);
      fd_ = std::move(o.fd_);
      base_ = std::exchange(o.base_, nullptr);
      size_ = std::exchange(o.size_, 0);
      owner_ = o.owner_;
      mode_ = o.mode_;
      guard_ = std::move(o.guard_);
   }
   return *this;
}

Segment::~Segment() { release(); }

void Segment::release() noexcept {
   guard_.reset(); // before the range can be mapped again by anyone
   if (base_) Sys::discard(Sys::calls().munmap(base_, size_));
   base_ = nullptr;
   size_ = 0;
}

namespace {

// Empty when an existing object may be reopened as this writer's own: a
// regular object of this user, no wider open than asked, of the size the
// layout needs. Anything else may have been written by someone else.
std::string distrust(const struct stat& st, uid_t self, mode_t mode, std::size_t size) {
   if (!S_ISREG(st.st_mode)) return "not a regular object";
   if (st.st_uid != self) return "owned by uid " + std::to_string(st.st_uid);
   if ((st.st_mode & 07777) & ~mode) {
      char text[64];
      std::snprintf(text, sizeof text, "mode 0%o, wider than 0%o", unsigned(st.st_mode & 07777), unsigned(mode));
      return text;
   }
   if (static_cast<std::size_t>(st.st_size) != size)
      return "of " + std::to_string(st.st_size) + " bytes, expected " + std::to_string(size);
   return {};
}

} // namespace

Segment Segment::openForWriter(const std::string& name, std::size_t size, mode_t mode, bool& created,
                               bool keepOtherSize) {
   Sys::Calls& sys = Sys::calls();
   const auto self = static_cast<uid_t>(sys.geteuid().value);
   Segment s;
   s.name_ = name;
   for (int attempt = 0;; ++attempt) {
      Sys::Result r = sys.shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
      if (r.ok()) {
         created = true;
         s.fd_.reset(static_cast<int>(r.value));
         // shm_open applies the umask; the table's mode is what was asked for.
         Sys::check(sys.fchmod(s.fd_.get(), mode), "fchmod");
         Sys::check(sys.ftruncate(s.fd_.get(), static_cast<off_t>(size)), "ftruncate");
         break;
      }
      if (r.err != EEXIST || attempt > 0) Sys::check(r, "shm_open");
      created = false;
      r = sys.shm_open(name.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0);
      struct stat st{};
      std::string why = !r.ok() ? std::string("not openable: ") + std::strerror(r.err)
                        : !sys.fstat(static_cast<int>(r.value), &st).ok() ? std::string("not examinable")
                                                                          : distrust(st, self, mode, size);
      if (why.empty()) {
         s.fd_.reset(static_cast<int>(r.value));
         // Narrower than asked: widen to the table's mode.
         if ((st.st_mode & 07777) != mode) Sys::check(sys.fchmod(s.fd_.get(), mode), "fchmod");
         break;
      }
      if (r.ok()) Sys::discard(sys.close(static_cast<int>(r.value)));
      if (keepOtherSize && why.starts_with("of "))
         throw Gant::TableError("shared segment " + name + " holds another layout (" + why + "); it is kept, not replaced");
      // Never reopened: a new object under the name, or nothing.
      FLASHLOG(trace, 1, "replacing shared segment ", name, ": it is ", why);
      if (!sys.shm_unlink(name.c_str()).ok())
         throw Gant::TableError("shared segment " + name + " is " + why + ", and it cannot be replaced");
   }
   Sys::Result m = sys.mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, s.fd_.get(), 0);
   s.base_ = reinterpret_cast<void*>(Sys::check(m, "mmap"));
   s.size_ = size;
   s.owner_ = self;
   // Another process of this user may truncate the object: the writer's
   // stores past the new end then land in private pages, not in SIGBUS.
   s.guard_ = std::make_unique<TruncationGuard>(s.base_, size, true);
   return s;
}

Segment Segment::openForReader(const std::string& name, std::size_t minSize) {
   Sys::Calls& sys = Sys::calls();
   Segment s;
   s.name_ = name;
   s.fd_.reset(static_cast<int>(Sys::check(sys.shm_open(name.c_str(), O_RDONLY | O_CLOEXEC, 0), "shm_open")));
   struct stat st{};
   Sys::check(sys.fstat(s.fd_.get(), &st), "fstat");
   if (static_cast<std::size_t>(st.st_size) < minSize)
      throw Gant::TableError("shared segment " + name + " is " + std::to_string(st.st_size) +
                               " bytes, expected " + std::to_string(minSize));
   const std::size_t size = static_cast<std::size_t>(st.st_size);
   s.owner_ = st.st_uid;
   s.mode_ = st.st_mode & 07777;
   Sys::Result m = sys.mmap(nullptr, size, PROT_READ, MAP_SHARED, s.fd_.get(), 0);
   s.base_ = reinterpret_cast<void*>(Sys::check(m, "mmap"));
   s.size_ = size;
   s.guard_ = std::make_unique<TruncationGuard>(s.base_, size);
   return s;
}

void Segment::unlink(const std::string& name) { Sys::discard(Sys::calls().shm_unlink(name.c_str())); }

} // namespace Pond
