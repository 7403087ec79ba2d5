#include "pond/Segment.h"

#include "gant/Error.h"
#include "sys/Calls.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <stdexcept>
#include <utility>

namespace Pond {

Segment::Segment(Segment&& o) noexcept
    : name_(std::move(o.name_)), fd_(std::move(o.fd_)), base_(std::exchange(o.base_, nullptr)),
      size_(std::exchange(o.size_, 0)), guard_(std::move(o.guard_)) {}

Segment& Segment::operator=(Segment&& o) noexcept {
   if (this != &o) {
      release();
      name_ = std::move(o.name_);
      fd_ = std::move(o.fd_);
      base_ = std::exchange(o.base_, nullptr);
      size_ = std::exchange(o.size_, 0);
      guard_ = std::move(o.guard_);
   }
   return *this;
}

Segment::~Segment() { release(); }

void Segment::release() noexcept {
   guard_.reset(); // before the range can be mapped again by anyone
   if (base_) Sys::calls().munmap(base_, size_);
   base_ = nullptr;
   size_ = 0;
}

Segment Segment::openForWriter(const std::string& name, std::size_t size, mode_t mode, bool& created) {
   Sys::Calls& sys = Sys::calls();
   Segment s;
   s.name_ = name;
   created = true;
   Sys::Result r = sys.shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode);
   if (!r.ok() && r.err == EEXIST) {
      created = false;
      r = sys.shm_open(name.c_str(), O_RDWR | O_CLOEXEC, mode);
   }
   s.fd_.reset(static_cast<int>(Sys::check(r, "shm_open")));
   if (created) {
      // shm_open applies the umask; the table's mode is what was asked for.
      Sys::check(sys.fchmod(s.fd_.get(), mode), "fchmod");
      Sys::check(sys.ftruncate(s.fd_.get(), static_cast<off_t>(size)), "ftruncate");
   } else {
      struct stat st{};
      Sys::check(sys.fstat(s.fd_.get(), &st), "fstat");
      if (static_cast<std::size_t>(st.st_size) != size) {
         // A segment of another layout: the caller decides (it is refused).
         size = static_cast<std::size_t>(st.st_size);
      }
   }
   if (size == 0) throw std::runtime_error("shared segment " + name + " is empty");
   Sys::Result m = sys.mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, s.fd_.get(), 0);
   s.base_ = reinterpret_cast<void*>(Sys::check(m, "mmap"));
   s.size_ = size;
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
      throw std::runtime_error("shared segment " + name + " is " + std::to_string(st.st_size) +
                               " bytes, expected " + std::to_string(minSize));
   const std::size_t size = static_cast<std::size_t>(st.st_size);
   Sys::Result m = sys.mmap(nullptr, size, PROT_READ, MAP_SHARED, s.fd_.get(), 0);
   s.base_ = reinterpret_cast<void*>(Sys::check(m, "mmap"));
   s.size_ = size;
   s.guard_ = std::make_unique<TruncationGuard>(s.base_, size);
   return s;
}

void Segment::unlink(const std::string& name) { Sys::calls().shm_unlink(name.c_str()); }

} // namespace Pond
