#pragma once
// One live writer per table. The writer holds an exclusive flock on a lock
// file of its own, owner-only, beside the wake socket. Readers never open
// it and another user cannot, so no reader and no stranger can take the
// lock and shut the rightful writer out; the kernel drops it when the
// writer dies, however it dies.
#include "sys/Fd.h"

#include <string>

namespace Pond {

// The lock file of the table whose wake socket is at wakePath.
std::string writerLockPath(const std::string& wakePath);

class WriterLock {
 public:
   // Takes the lock, creating the file exclusively. A file at the path that
   // is not a regular file owned by this user, owner-only, is not trusted:
   // it is replaced where permissions allow, else refused. Throws
   // Gant::TableError naming `table` when another writer is live.
   WriterLock(const std::string& path, const std::string& table);
   ~WriterLock();
   WriterLock(const WriterLock&) = delete;
   WriterLock& operator=(const WriterLock&) = delete;

 private:
   std::string path_;
   Sys::Fd fd_;
};

} // namespace Pond
