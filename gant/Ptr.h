#pragma once
// Intrusive reference counting. Counts are plain integers by default: the
// library runs on one event-loop thread. Build with MCASTFIB_ATOMIC_REFCOUNT
// to share objects across threads.
#include <cstdint>
#include <utility>
#if MCASTFIB_ATOMIC_REFCOUNT
#include <atomic>
#endif

namespace Gant {

class PtrInterface {
 public:
   PtrInterface() = default;
   PtrInterface(const PtrInterface&) noexcept {}
   PtrInterface& operator=(const PtrInterface&) noexcept { return *this; }

   void ref() const noexcept { ++refCount_; }
   void unref() const noexcept {
      if (--refCount_ == 0) delete this;
   }
   uint32_t refCount() const noexcept { return refCount_; }

 protected:
   virtual ~PtrInterface() = default;

 private:
#if MCASTFIB_ATOMIC_REFCOUNT
   mutable std::atomic<uint32_t> refCount_{0};
#else
   mutable uint32_t refCount_ = 0;
#endif
};

template <class T>
class Ptr {
 public:
   Ptr() noexcept = default;
   Ptr(std::nullptr_t) noexcept {}
   Ptr(T* p) noexcept : p_(p) { if (p_) p_->ref(); }
   Ptr(const Ptr& o) noexcept : Ptr(o.p_) {}
   Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
   template <class U>
   Ptr(const Ptr<U>& o) noexcept : Ptr(o.ptr()) {}
   ~Ptr() { if (p_) p_->unref(); }

   Ptr& operator=(Ptr o) noexcept {
      std::swap(p_, o.p_);
      return *this;
   }

   T* ptr() const noexcept { return p_; }
   T* operator->() const noexcept { return p_; }
   T& operator*() const noexcept { return *p_; }
   explicit operator bool() const noexcept { return p_ != nullptr; }
   bool operator!() const noexcept { return p_ == nullptr; }

   template <class U>
   bool operator==(const Ptr<U>& o) const noexcept { return p_ == o.ptr(); }
   bool operator==(const T* o) const noexcept { return p_ == o; }
   bool operator==(std::nullptr_t) const noexcept { return !p_; }

 private:
   T* p_ = nullptr;
};

template <class T>
using PtrConst = Ptr<const T>;

template <class T, class... A>
Ptr<T> make(A&&... a) {
   return Ptr<T>(new T(std::forward<A>(a)...));
}

} // namespace Gant
