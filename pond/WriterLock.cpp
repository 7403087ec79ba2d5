#include "pond/WriterLock.h"

#include "gant/Error.h"
#include "sys/Calls.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cstring>
#include <stdexcept>

namespace Pond {

std::string writerLockPath(const std::string& wakePath) {
   const std::string suffix = ".wake";
   std::string p = wakePath;
   if (p.size() >= suffix.size() && p.compare(p.size() - suffix.size(), suffix.size(), suffix) == 0)
      p.resize(p.size() - suffix.size());
   return p + ".lock";
}

namespace {

// Empty when st describes a lock file this writer may trust.
std::string distrust(const struct stat& st, uid_t self) {
   if (!S_ISREG(st.st_mode)) return "not a regular file";
   if (st.st_uid != self) return "owned by uid " + std::to_string(st.st_uid);
   if (st.st_mode & 077) return "readable or writable by others";
   return {};
}

} // namespace

WriterLock::WriterLock(const std::string& path, const std::string& table) : path_(path) {
   Sys::Calls& sys = Sys::calls();
   const auto self = static_cast<uid_t>(sys.geteuid().value);
   // A writer that unlinks its lock file on the way out may leave us holding
   // a lock on a name that is gone: lock, then check the name is still ours.
   for (int attempt = 0; attempt < 8; ++attempt) {
      Sys::Result r = sys.open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
      if (!r.ok() && r.err == EEXIST) {
         r = sys.open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0);
         struct stat st{};
         std::string why = !r.ok() ? std::string("cannot be opened: ") + std::strerror(r.err)
                           : !sys.fstat(static_cast<int>(r.value), &st).ok() ? std::string("cannot be examined")
                                                                             : distrust(st, self);
         if (!why.empty()) {
            if (r.ok()) Sys::discard(sys.close(static_cast<int>(r.value)));
            if (!sys.unlink(path.c_str()).ok())
               throw Gant::TableError("table " + table + ": lock file " + path + " is " + why +
                                        ", and it cannot be replaced");
            continue;
         }
      }
      Sys::Fd fd(static_cast<int>(Sys::check(r, "open")));
      Sys::Result locked = sys.flock(fd.get(), LOCK_EX | LOCK_NB);
      if (!locked.ok()) {
         if (locked.err == EWOULDBLOCK) throw Gant::TableError("table " + table + " already has a live writer");
         Sys::check(locked, "flock");
      }
      struct stat held{}, named{};
      Sys::check(sys.fstat(fd.get(), &held), "fstat");
      if (sys.lstat(path.c_str(), &named).ok() && named.st_dev == held.st_dev && named.st_ino == held.st_ino) {
         fd_ = std::move(fd);
         return;
      }
   }
   throw Gant::TableError("table " + table + ": lock file " + path + " keeps changing under its writer");
}

// The name is removed while the lock is still held, so that a writer that
// opened it meanwhile finds, once it holds the lock, that the name is gone.
WriterLock::~WriterLock() {
   if (fd_) Sys::discard(Sys::calls().unlink(path_.c_str()));
}

} // namespace Pond
