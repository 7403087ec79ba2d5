#pragma once
// Copies between private memory and shared memory that another process may
// be writing at the same time. Every shared access is an atomic access of a
// machine word (relaxed: the seqlock around it supplies the ordering), so the
// copy is race-free in the C++ memory model. The compiler turns relaxed word
// loads and stores into plain moves.
#include <atomic>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Pond {

// Seqlock ordering. ThreadSanitizer does not model standalone fences, so
// under it every guarded word is read with acquire and written with release
// instead of relaxed plus one fence: slower, with the same guarantees.
#if defined(__SANITIZE_THREAD__)
inline constexpr std::memory_order kGuardedLoad = std::memory_order_acquire;
inline constexpr std::memory_order kGuardedStore = std::memory_order_release;
inline void acquireFence() {}
inline void releaseFence() {}
#else
inline constexpr std::memory_order kGuardedLoad = std::memory_order_relaxed;
inline constexpr std::memory_order kGuardedStore = std::memory_order_relaxed;
inline void acquireFence() { std::atomic_thread_fence(std::memory_order_acquire); }
inline void releaseFence() { std::atomic_thread_fence(std::memory_order_release); }
#endif

// The widest word that is atomic without a lock on this build.
using Word = std::conditional_t<sizeof(void*) == 8, uint64_t, uint32_t>;
constexpr std::size_t kWordSize = sizeof(Word);

inline void copyFromShared(void* dst, const void* src, std::size_t bytes) {
   auto* s = static_cast<Word*>(const_cast<void*>(src));
   auto* d = static_cast<unsigned char*>(dst);
   const std::size_t words = bytes / kWordSize;
#pragma GCC unroll 64
   for (std::size_t i = 0; i < words; ++i) {
      Word w = std::atomic_ref<Word>(s[i]).load(kGuardedLoad);
      std::memcpy(d + i * kWordSize, &w, kWordSize);
   }
   if (std::size_t rest = bytes % kWordSize) {
      Word w = std::atomic_ref<Word>(s[words]).load(kGuardedLoad);
      std::memcpy(d + words * kWordSize, &w, rest);
   }
}

// copyFromShared of a record whose first KeyBytes are its key, fused with
// the comparison of that key against key: the key's words are compared in
// registers as they are copied. Returns 0 when the copied key equals key.
template <std::size_t Bytes, std::size_t KeyBytes>
inline Word copyFromSharedKeyed(void* dst, const void* src, const void* key) {
   static_assert(KeyBytes <= Bytes);
   auto* s = static_cast<Word*>(const_cast<void*>(src));
   auto* d = static_cast<unsigned char*>(dst);
   const auto* k = static_cast<const unsigned char*>(key);
   constexpr std::size_t words = Bytes / kWordSize, keyWords = KeyBytes / kWordSize;
   Word diff = 0;
#pragma GCC unroll 64
   for (std::size_t i = 0; i < words; ++i) {
      Word w = std::atomic_ref<Word>(s[i]).load(kGuardedLoad);
      if (i < keyWords) {
         Word kw;
         std::memcpy(&kw, k + i * kWordSize, kWordSize);
         diff |= w ^ kw;
      }
      std::memcpy(d + i * kWordSize, &w, kWordSize);
   }
   if constexpr (Bytes % kWordSize != 0) {
      Word w = std::atomic_ref<Word>(s[words]).load(kGuardedLoad);
      std::memcpy(d + words * kWordSize, &w, Bytes % kWordSize);
   }
   for (std::size_t i = keyWords * kWordSize; i < KeyBytes; ++i) diff |= Word(d[i] ^ k[i]);
   return diff;
}

// dst must be a whole number of words long (shared areas are padded).
inline void copyToShared(void* dst, const void* src, std::size_t bytes) {
   auto* d = static_cast<Word*>(dst);
   auto* s = static_cast<const unsigned char*>(src);
   const std::size_t words = bytes / kWordSize;
#pragma GCC unroll 64
   for (std::size_t i = 0; i < words; ++i) {
      Word w;
      std::memcpy(&w, s + i * kWordSize, kWordSize);
      std::atomic_ref<Word>(d[i]).store(w, kGuardedStore);
   }
   if (std::size_t rest = bytes % kWordSize) {
      Word w = 0;
      std::memcpy(&w, s + words * kWordSize, rest);
      std::atomic_ref<Word>(d[words]).store(w, kGuardedStore);
   }
}

template <class T>
inline T loadAcquire(const T& v) {
   return std::atomic_ref<T>(const_cast<T&>(v)).load(std::memory_order_acquire);
}
template <class T>
inline T loadRelaxed(const T& v) {
   return std::atomic_ref<T>(const_cast<T&>(v)).load(std::memory_order_relaxed);
}
template <class T>
inline void storeRelease(T& v, std::type_identity_t<T> x) {
   std::atomic_ref<T>(v).store(x, std::memory_order_release);
}
template <class T>
inline void storeRelaxed(T& v, std::type_identity_t<T> x) {
   std::atomic_ref<T>(v).store(x, std::memory_order_relaxed);
}
// A word inside a seqlock's guarded area.
inline uint32_t loadGuarded(const uint32_t& v) {
   return std::atomic_ref<uint32_t>(const_cast<uint32_t&>(v)).load(kGuardedLoad);
}
inline void storeGuarded(uint32_t& v, uint32_t x) { std::atomic_ref<uint32_t>(v).store(x, kGuardedStore); }

// Byte equality of two private or writer-owned areas of a size known at
// compile time, inline and branch-free (a libc memcmp call costs more than
// the compare itself at these sizes).
template <std::size_t Bytes>
inline bool equalBytes(const void* a, const void* b) {
   const auto* x = static_cast<const unsigned char*>(a);
   const auto* y = static_cast<const unsigned char*>(b);
   uint64_t diff = 0;
#pragma GCC unroll 64
   for (std::size_t i = 0; i + 8 <= Bytes; i += 8) {
      uint64_t u, v;
      std::memcpy(&u, x + i, 8);
      std::memcpy(&v, y + i, 8);
      diff |= u ^ v;
   }
   for (std::size_t i = Bytes / 8 * 8; i < Bytes; ++i) diff |= uint64_t(x[i] ^ y[i]);
   return diff == 0;
}

// A check of a record, written into its slot with it, so that bytes
// changed behind the writer's back are reported rather than handed out. It
// runs over 32-bit lanes, so 32- and 64-bit builds agree, as four
// independent position-weighted sums (one SSE2 register each where there
// is SSE2), so that it costs about a cycle per 16 bytes.
inline uint32_t recordCheck(uint32_t seq, const void* data, std::size_t bytes) {
   const auto* p = static_cast<const unsigned char*>(data);
   alignas(16) uint32_t a[4] = {1, 2, 3, 4}, b[4] = {seq, 0, 0, 0};
   std::size_t i = 0;
#if defined(__SSE2__)
   __m128i va = _mm_load_si128(reinterpret_cast<const __m128i*>(a));
   __m128i vb = _mm_load_si128(reinterpret_cast<const __m128i*>(b));
#pragma GCC unroll 16
   for (; i + 16 <= bytes; i += 16) {
      va = _mm_add_epi32(va, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i)));
      vb = _mm_add_epi32(vb, va);
   }
   _mm_store_si128(reinterpret_cast<__m128i*>(a), va);
   _mm_store_si128(reinterpret_cast<__m128i*>(b), vb);
#else
   for (; i + 16 <= bytes; i += 16) {
      for (int l = 0; l < 4; ++l) {
         uint32_t w;
         std::memcpy(&w, p + i + 4 * l, 4);
         a[l] += w;
         b[l] += a[l];
      }
   }
#endif
   for (int l = 0; i < bytes; i += 4, ++l) {
      uint32_t w = 0;
      std::memcpy(&w, p + i, bytes - i < 4 ? bytes - i : 4);
      a[l] += w;
      b[l] += a[l];
   }
   uint32_t h = uint32_t(bytes);
   for (int l = 0; l < 4; ++l) h = (h ^ a[l]) * 0x9e3779b1u ^ b[l];
   return h ^ (h >> 15);
}

// The segment's magic, read as two 32-bit words: a 64-bit atomic load is not
// a plain load on 32-bit x86, and readers map the segment read-only.
template <class H>
bool magicOk(const H* h) {
   const auto* w = reinterpret_cast<const uint32_t*>(&h->magic);
   uint64_t m = uint64_t(loadRelaxed(w[1])) << 32 | loadRelaxed(w[0]);
   return m == H::kExpectedMagic;
}

} // namespace Pond
