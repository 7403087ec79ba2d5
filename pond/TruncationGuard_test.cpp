// The guard against a shared object shrinking under its mapping, on real
// memory files truncated for real.
#include "pond/TruncationGuard.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <vector>

namespace {

using Pond::TruncationGuard;

struct SharedFile {
   int fd = ::memfd_create("guarded", MFD_CLOEXEC);
   std::size_t size = 4 * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
   const volatile unsigned char* bytes = nullptr;
   SharedFile() {
      EXPECT_EQ(::ftruncate(fd, static_cast<off_t>(size)), 0);
      void* p = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
      EXPECT_NE(p, MAP_FAILED);
      bytes = static_cast<const volatile unsigned char*>(p);
   }
   ~SharedFile() {
      ::munmap(const_cast<unsigned char*>(bytes), size);
      ::close(fd);
   }
   void fill(unsigned char b) {
      const std::vector<unsigned char> bytes(size, b);
      EXPECT_EQ(::pwrite(fd, bytes.data(), size, 0), ssize_t(size));
   }
};

TEST(PondTruncationGuard, ReadsPastTheNewEndSeeZerosAndTripTheGuard) {
   SharedFile file;
   file.fill(0x5a);
   TruncationGuard guard(const_cast<unsigned char*>(file.bytes), file.size);
   ASSERT_GE(guard.fd(), 0);
   EXPECT_EQ(file.bytes[file.size - 1], 0x5a);
   EXPECT_FALSE(guard.tripped());

   const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
   ASSERT_EQ(::ftruncate(file.fd, static_cast<off_t>(page)), 0);
   EXPECT_EQ(file.bytes[0], 0x5a) << "what the file still has is read from it";
   EXPECT_EQ(file.bytes[2 * page + 5], 0) << "what it lost reads as zeros";
   EXPECT_EQ(file.bytes[file.size - 1], 0);
   EXPECT_TRUE(guard.tripped());
   uint64_t count = 0;
   EXPECT_EQ(::read(guard.fd(), &count, sizeof count), ssize_t(sizeof count)) << "the owner's loop is told";
   EXPECT_EQ(count, 1u) << "one fault covers the rest of the mapping";
}

TEST(PondTruncationGuard, AnyOtherSigbusStillEndsTheProcess) {
   SharedFile guarded;
   TruncationGuard guard(const_cast<unsigned char*>(guarded.bytes), guarded.size);
   // Ended by the default action, or by the handler installed before the
   // guard's (a sanitizer's, say): either way not carried on.
   EXPECT_DEATH(::raise(SIGBUS), "") << "a signal sent, not a fault";
   EXPECT_DEATH(
       {
          SharedFile unguarded;
          ASSERT_EQ(::ftruncate(unguarded.fd, 0), 0);
          (void)unguarded.bytes[0];
       },
       "")
       << "a truncated mapping nobody guards";
   EXPECT_FALSE(guard.tripped());
}

TEST(PondTruncationGuard, ARemovedGuardNoLongerCatches) {
   EXPECT_DEATH(
       {
          SharedFile file;
          { TruncationGuard gone(const_cast<unsigned char*>(file.bytes), file.size); }
          ASSERT_EQ(::ftruncate(file.fd, 0), 0);
          (void)file.bytes[0];
       },
       "");
}

} // namespace
