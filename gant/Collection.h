#pragma once
// The operations behind generated collection attributes. Each returns whether
// the collection changed so that the generated caller notifies exactly once
// per change and never for a no-op.
#include "gant/Codec.h"
#include "gant/Ptr.h"

#include <cstring>
#include <map>
#include <iterator>
#include <set>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Gant {

template <class K, class V>
using OrderedMap = std::map<K, V>;
template <class K, class V>
using HashedMap = std::unordered_map<K, V, Hash<K>>;
template <class K>
using OrderedSet = std::set<K>;
template <class K>
using HashedSet = std::unordered_set<K, Hash<K>>;

// A hashed map in one array, for maps on a request path (an allocator's,
// say): open addressing with linear probing, buckets for n entries made up
// front and never more than half of them used, so a lookup is a mask and a
// short walk, and an insert or remove allocates nothing once the map has
// first grown to its largest size. A removal moves the later entries of its
// run back instead of leaving a tombstone. Any insert or removal
// invalidates iterators.
template <class K, class V>
class FlatHashedMap {
 public:
   using key_type = K;
   using mapped_type = V;
   using value_type = std::pair<K, V>;
   using size_type = std::size_t;

   template <bool Const>
   class Iter {
      using Map = std::conditional_t<Const, const FlatHashedMap, FlatHashedMap>;

    public:
      using iterator_category = std::forward_iterator_tag;
      using value_type = FlatHashedMap::value_type;
      using difference_type = std::ptrdiff_t;
      using reference = std::conditional_t<Const, const value_type&, value_type&>;
      using pointer = std::conditional_t<Const, const value_type*, value_type*>;
      Iter() = default;
      Iter(Map* m, std::size_t b) : m_(m), b_(b) { skip(); }
      operator Iter<true>() const { return Iter<true>(m_, b_); }
      reference operator*() const { return m_->entries_[b_]; }
      pointer operator->() const { return &m_->entries_[b_]; }
      Iter& operator++() {
         ++b_;
         skip();
         return *this;
      }
      Iter operator++(int) {
         Iter i = *this;
         ++*this;
         return i;
      }
      bool operator==(const Iter& o) const { return b_ == o.b_; }

    private:
      friend class FlatHashedMap;
      void skip() {
         while (b_ < m_->hashes_.size() && m_->hashes_[b_] == 0) ++b_;
      }
      Map* m_ = nullptr;
      std::size_t b_ = 0;
   };
   using iterator = Iter<false>;
   using const_iterator = Iter<true>;

   explicit FlatHashedMap(std::size_t n = 0) { rebuild(bucketsFor(n)); }

   std::size_t size() const noexcept { return size_; }
   bool empty() const noexcept { return size_ == 0; }
   iterator begin() { return iterator(this, 0); }
   iterator end() { return iterator(this, hashes_.size()); }
   const_iterator begin() const { return const_iterator(this, 0); }
   const_iterator end() const { return const_iterator(this, hashes_.size()); }

   iterator find(const K& k) { return iterator(this, lookup(k, stored(k))); }
   const_iterator find(const K& k) const { return const_iterator(this, lookup(k, stored(k))); }
   std::size_t count(const K& k) const { return lookup(k, stored(k)) != hashes_.size(); }

   std::pair<iterator, bool> try_emplace(const K& k, const V& v) {
      const uint32_t h = stored(k);
      std::size_t b = h & mask_;
      for (; hashes_[b] != 0; b = (b + 1) & mask_)
         if (hashes_[b] == h && same(entries_[b].first, k)) return {iterator(this, b), false};
      if (2 * (size_ + 1) > hashes_.size()) {
         rebuild(2 * hashes_.size());
         for (b = h & mask_; hashes_[b] != 0; b = (b + 1) & mask_) {}
      }
      hashes_[b] = h;
      entries_[b] = value_type(k, v);
      ++size_;
      return {iterator(this, b), true};
   }
   std::size_t erase(const K& k) {
      const std::size_t b = lookup(k, stored(k));
      if (b == hashes_.size()) return 0;
      eraseAt(b);
      return 1;
   }
   void erase(const_iterator it) { eraseAt(it.b_); }
   // Not by eraseAt: its shifts would move entries behind the sweep.
   void clear() {
      for (std::size_t b = 0; b < hashes_.size(); ++b) {
         if (hashes_[b] == 0) continue;
         hashes_[b] = 0;
         entries_[b] = value_type();
      }
      size_ = 0;
   }

 private:
   static std::size_t bucketsFor(std::size_t n) {
      std::size_t b = 16;
      while (b < 2 * n) b *= 2;
      return b;
   }
   // A key whose bytes are its value is hashed and compared by its 8-byte
   // words: a few multiplies rather than its type's hash, which must stay
   // the same on every build and is dearer. The hash never leaves the map.
   static constexpr bool kByBytes = std::has_unique_object_representations_v<K>;
   static constexpr std::size_t kWords = sizeof(K) / 8, kRest = sizeof(K) % 8;
   template <std::size_t N>
   static uint64_t word(const K& k, std::size_t i) {
      uint64_t w = 0;
      std::memcpy(&w, reinterpret_cast<const unsigned char*>(&k) + 8 * i, N);
      return w;
   }
   static uint32_t hashKey(const K& k) {
      if constexpr (kByBytes) {
         uint64_t h = sizeof(K);
#pragma GCC unroll 16
         for (std::size_t i = 0; i < kWords; ++i) h = (h ^ word<8>(k, i)) * 0x9e3779b97f4a7c15ull;
         if constexpr (kRest != 0) h = (h ^ word<kRest>(k, kWords)) * 0x9e3779b97f4a7c15ull;
         return static_cast<uint32_t>(h >> 32) ^ static_cast<uint32_t>(h >> 7);
      } else {
         return hashOf(k);
      }
   }
   static bool same(const K& a, const K& b) {
      if constexpr (kByBytes) {
         uint64_t diff = 0;
#pragma GCC unroll 16
         for (std::size_t i = 0; i < kWords; ++i) diff |= word<8>(a, i) ^ word<8>(b, i);
         if constexpr (kRest != 0) diff |= word<kRest>(a, kWords) ^ word<kRest>(b, kWords);
         return diff == 0;
      } else {
         return a == b;
      }
   }
   // The key's hash with the top bit set, so that 0 marks an empty bucket;
   // the bucket is its low bits (there are never 2^31 buckets).
   static uint32_t stored(const K& k) { return hashKey(k) | 0x80000000u; }
   // The key's bucket, or the bucket count when absent.
   std::size_t lookup(const K& k, uint32_t h) const {
      for (std::size_t b = h & mask_; hashes_[b] != 0; b = (b + 1) & mask_)
         if (hashes_[b] == h && same(entries_[b].first, k)) return b;
      return hashes_.size();
   }
   void eraseAt(std::size_t b) {
      std::size_t hole = b;
      for (std::size_t p = (b + 1) & mask_; hashes_[p] != 0; p = (p + 1) & mask_) {
         // Stays unless the hole lies between its home bucket and it.
         const std::size_t home = hashes_[p] & mask_;
         if (((p - home) & mask_) < ((p - hole) & mask_)) continue;
         hashes_[hole] = hashes_[p];
         entries_[hole] = std::move(entries_[p]);
         hole = p;
      }
      hashes_[hole] = 0;
      entries_[hole] = value_type();
      --size_;
   }
   void rebuild(std::size_t buckets) {
      std::vector<uint32_t> hashes(buckets, 0);
      std::vector<value_type> entries(buckets);
      hashes.swap(hashes_);
      entries.swap(entries_);
      mask_ = buckets - 1;
      for (std::size_t b = 0; b < hashes.size(); ++b) {
         if (hashes[b] == 0) continue;
         std::size_t to = hashes[b] & mask_;
         while (hashes_[to] != 0) to = (to + 1) & mask_;
         hashes_[to] = hashes[b];
         entries_[to] = std::move(entries[b]);
      }
   }

   std::vector<uint32_t> hashes_; // per bucket: stored(key), 0 when empty
   std::vector<value_type> entries_;
   std::size_t mask_ = 0;
   std::size_t size_ = 0;
};

// Insert or overwrite; false when the stored value already equals v.
template <class M, class K, class V>
bool mapSet(M& m, const K& k, const V& v) {
   auto [it, inserted] = m.try_emplace(k, v);
   if (inserted) return true;
   if (it->second == v) return false;
   it->second = v;
   return true;
}

// The value under k, or V's default when absent.
template <class M, class K>
typename M::mapped_type mapGet(const M& m, const K& k) {
   auto it = m.find(k);
   return it == m.end() ? typename M::mapped_type{} : it->second;
}

// Removes entries one at a time, calling removed(key) after each, so that a
// reactor sees each key leave and may look at what is left.
template <class M, class F>
void delAll(M& m, F removed) {
   while (!m.empty()) {
      auto it = m.begin();
      auto key = [&]() {
         if constexpr (requires { it->first; }) return it->first;
         else return *it;
      }();
      m.erase(it);
      removed(key);
   }
}

// Dense array attribute: index -> value, a missing entry reads as the default.
template <class V>
class DenseArray {
 public:
   V get(std::size_t i) const { return i < v_.size() ? v_[i] : V{}; }
   bool set(std::size_t i, const V& v) {
      if (get(i) == v) return false;
      if (i >= v_.size()) v_.resize(i + 1);
      v_[i] = v;
      return true;
   }
   bool del(std::size_t i) { return set(i, V{}); }
   std::size_t size() const noexcept { return v_.size(); }
   const std::vector<V>& values() const noexcept { return v_; }

 private:
   std::vector<V> v_;
};

// Text of a collection, for reflection and for value types that hold one:
// "{key: value, ...}" or "{key, ...}".
template <class C>
void collectionText(std::string& out, const C& c) {
   out += '{';
   bool first = true;
   for (const auto& e : c) {
      if (!first) out += ", ";
      first = false;
      if constexpr (requires { e.first; e.second; }) {
         Codec<std::decay_t<decltype(e.first)>>::text(out, e.first);
         out += ": ";
         using V = std::decay_t<decltype(e.second)>;
         if constexpr (requires { Codec<V>::text(out, e.second); }) Codec<V>::text(out, e.second);
         else out += "<entity>";
      } else {
         Codec<std::decay_t<decltype(e)>>::text(out, e);
      }
   }
   out += '}';
}

} // namespace Gant
