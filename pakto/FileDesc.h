#pragma once
// A named holder of one socket descriptor that a pam reads: the pam opens
// and closes the socket, this object only carries it and its blocking mode.
#include "gant/Generated.h"
#include "gant/Ptr.h"

#include <string>

namespace Pakto {

class FileDesc : public Gant::PtrInterface {
 public:
   explicit FileDesc(Gant::Name name) : name_(std::move(name)) {}
   const Gant::Name& name() const noexcept { return name_; }
   int descriptor() const noexcept { return descriptor_; }
   void descriptorIs(int fd) noexcept { descriptor_ = fd; }
   // Sets or clears O_NONBLOCK through the system-call seam; false when
   // fcntl fails (errno is left as the call set it).
   bool nonBlockingIs(bool on) noexcept;

 private:
   Gant::Name name_;
   int descriptor_ = -1;
};

} // namespace Pakto

namespace Gant {
inline EntityRef entityName(const Pakto::FileDesc* f) {
   if (!f) return {};
   return EntityRef{f->name(), false};
}
} // namespace Gant
