#pragma once
// The operations behind generated collection attributes. Each returns whether
// the collection changed so that the generated caller notifies exactly once
// per change and never for a no-op.
#include "gant/Codec.h"
#include "gant/Ptr.h"

#include <map>
#include <set>
#include <string>
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

// A hashed map whose removed entries leave their nodes for the next inserts,
// with buckets for n entries made up front: a map that stays within n
// entries allocates only while it first grows to its largest size, not on
// each insert after a remove (the request path of an allocator, say).
template <class K, class V>
class ReusingHashedMap : public HashedMap<K, V> {
   using Base = HashedMap<K, V>;

 public:
   explicit ReusingHashedMap(std::size_t n = 0) : n_(n) {
      this->reserve(n);
      spare_.reserve(n);
   }
   ReusingHashedMap(const ReusingHashedMap& o) : Base(o), n_(o.n_) { spare_.reserve(n_); }
   ReusingHashedMap& operator=(const ReusingHashedMap& o) {
      Base::operator=(o);
      return *this;
   }

   std::pair<typename Base::iterator, bool> try_emplace(const K& k, const V& v) {
      if (auto it = this->find(k); it != this->end() || spare_.empty()) return Base::try_emplace(k, v);
      typename Base::node_type node = std::move(spare_.back());
      spare_.pop_back();
      node.key() = k;
      node.mapped() = v;
      return {this->insert(std::move(node)).position, true};
   }
   using Base::erase;
   std::size_t erase(const K& k) {
      typename Base::node_type node = this->extract(k);
      if (!node) return 0;
      if (spare_.size() < n_) spare_.push_back(std::move(node));
      return 1;
   }

 private:
   std::size_t n_;
   std::vector<typename Base::node_type> spare_;
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
