#pragma once
// Owner of one descriptor: closes it through the system-call seam when it
// goes. Move-only.
#include <utility>

namespace Sys {

class Fd {
 public:
   Fd() noexcept = default;
   explicit Fd(int fd) noexcept : fd_(fd) {}
   Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
   Fd& operator=(Fd&& other) noexcept {
      if (this != &other) reset(other.release());
      return *this;
   }
   Fd(const Fd&) = delete;
   Fd& operator=(const Fd&) = delete;
   ~Fd() { reset(); }

   int get() const noexcept { return fd_; }
   bool valid() const noexcept { return fd_ >= 0; }
   explicit operator bool() const noexcept { return valid(); }

   // Gives up ownership without closing.
   int release() noexcept { return std::exchange(fd_, -1); }
   // Closes the descriptor held (a failed close is ignored: the descriptor is
   // gone either way) and takes `fd` instead.
   void reset(int fd = -1) noexcept;

 private:
   int fd_ = -1;
};

} // namespace Sys
