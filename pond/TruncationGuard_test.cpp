// The guard against a shared object shrinking under its mapping, on real
// memory files truncated for real.
#include "pond/TruncationGuard.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

namespace {

using Pond::TruncationGuard;

const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));

struct SharedFile {
   int fd = ::memfd_create("guarded", MFD_CLOEXEC);
   std::size_t size = 4 * page;
   volatile unsigned char* bytes = nullptr;
   explicit SharedFile(bool writable = false) {
      EXPECT_EQ(::ftruncate(fd, static_cast<off_t>(size)), 0);
      void* p = ::mmap(nullptr, size, PROT_READ | (writable ? PROT_WRITE : 0), MAP_SHARED, fd, 0);
      EXPECT_NE(p, MAP_FAILED);
      bytes = static_cast<volatile unsigned char*>(p);
   }
   ~SharedFile() {
      ::munmap(const_cast<unsigned char*>(bytes), size);
      ::close(fd);
   }
   unsigned char* data() const { return const_cast<unsigned char*>(bytes); }
   void fill(unsigned char b) {
      const std::vector<unsigned char> bytes(size, b);
      EXPECT_EQ(::pwrite(fd, bytes.data(), size, 0), ssize_t(size));
   }
};

// A death-test child's assertions do not reach the parent: it counts its own
// failures and exits 0 with none (a SIGBUS the guards miss ends it otherwise).
int failures = 0;
void check(bool ok, const char* what, std::size_t i = 0) {
   if (!ok && failures++ < 10) std::fprintf(stderr, "FAILED: %s (%zu)\n", what, i);
}
template <typename Body>
void inChild(Body body) {
   EXPECT_EXIT(
       {
          body();
          std::fflush(stderr);
          ::_exit(failures == 0 ? 0 : 1);
       },
       ::testing::ExitedWithCode(0), "");
}

TEST(PondTruncationGuardDeathTest, ThreadsGuardMoreMappingsThanTheFirstChunkHolds) {
   inChild([] {
      // Two threads registering at once race for entries and for the chunks
      // the registry grows by.
      constexpr std::size_t kPerThread = 150;
      std::vector<std::unique_ptr<SharedFile>> files(2 * kPerThread);
      std::vector<std::unique_ptr<TruncationGuard>> guards(files.size());
      auto guardHalf = [&](std::size_t from) {
         for (std::size_t i = from; i < from + kPerThread; ++i) {
            files[i] = std::make_unique<SharedFile>();
            files[i]->fill(0x5a);
            guards[i] = std::make_unique<TruncationGuard>(files[i]->data(), files[i]->size);
         }
      };
      std::thread other(guardHalf, kPerThread);
      guardHalf(0);
      other.join();
      for (std::size_t i = 0; i < files.size(); ++i) {
         check(::ftruncate(files[i]->fd, static_cast<off_t>(page)) == 0, "ftruncate", i);
         check(files[i]->bytes[page - 1] == 0x5a, "kept byte", i);
         check(files[i]->bytes[page] == 0 && files[i]->bytes[files[i]->size - 1] == 0, "lost bytes", i);
         check(guards[i]->tripped(), "tripped", i);
      }
      // Released entries are taken again.
      guards[7].reset();
      SharedFile again;
      TruncationGuard reused(again.data(), again.size);
      check(::ftruncate(again.fd, 0) == 0 && again.bytes[0] == 0 && reused.tripped(), "reused entry");
   });
}

TEST(PondTruncationGuardDeathTest, AWritableGuardTakesStoresPastTheNewEnd) {
   inChild([] {
      SharedFile file(true);
      file.fill(0x5a);
      TruncationGuard guard(file.data(), file.size, true);
      check(::ftruncate(file.fd, static_cast<off_t>(page)) == 0, "ftruncate");
      file.bytes[2 * page + 5] = 0x77;
      check(file.bytes[2 * page + 5] == 0x77, "a store past the end reads back");
      check(file.bytes[2 * page + 6] == 0 && file.bytes[file.size - 1] == 0, "the rest reads zeros");
      file.bytes[0] = 0x11;
      unsigned char first = 0;
      check(::pread(file.fd, &first, 1, 0) == 1 && first == 0x11, "what the file keeps is still shared");
      uint64_t count = 0;
      check(guard.tripped() && ::read(guard.fd(), &count, sizeof count) == ssize_t(sizeof count),
            "the owner's loop is told");
      check(count == 1, "one fault covers the rest of the mapping");
   });
}

TEST(PondTruncationGuardDeathTest, AnyOtherSigbusStillEndsTheProcess) {
   SharedFile guarded;
   TruncationGuard guard(guarded.data(), guarded.size);
   // Ended by the default action, or by the handler installed before the
   // guard's (a sanitizer's, say): either way not carried on.
   EXPECT_DEATH(::raise(SIGBUS), "") << "a signal sent, not a fault";
   for (const bool guardedOnce : {false, true}) {
      EXPECT_DEATH(
          {
             SharedFile file;
             if (guardedOnce) TruncationGuard gone(file.data(), file.size);
             ASSERT_EQ(::ftruncate(file.fd, 0), 0);
             (void)file.bytes[0];
          },
          "")
          << (guardedOnce ? "a guard removed no longer catches" : "a truncated mapping nobody guards");
   }
   EXPECT_FALSE(guard.tripped());
}

} // namespace
