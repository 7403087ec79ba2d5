#pragma once
// Typed access to a collection of records R (trivially copyable, key first).
#include "gant/Assert.h"
#include "gant/Codec.h"
#include "pond/Table.h"

#include <bit>
#include <new>
#include <cstring>
#include <optional>
#include <type_traits>

namespace Pond {

template <class R>
struct Record {
   using Key = std::decay_t<decltype(std::declval<const R&>().key())>;
   static_assert(std::is_trivially_copyable_v<R>, "records are copied as bytes");
   static_assert(std::is_trivially_copyable_v<Key>);

   static uint32_t hash(const void* k) {
      Key key;
      std::memcpy(static_cast<void*>(&key), k, sizeof key);
      return Gant::hashOf(key);
   }
   static bool validKey(const void* k) {
      if constexpr (requires(const Key& x) { x.gantValid(); }) {
         Key key;
         std::memcpy(static_cast<void*>(&key), k, sizeof key);
         return key.gantValid();
      }
      return true;
   }
   static CollectionCodec codec() { return {&hash, &validKey}; }
   static CollectionShape shape(std::string name, uint32_t capacity, uint32_t queueLength = 0) {
      // The key must be the record's first bytes: readers compare and hash
      // them without knowing the record type.
      if constexpr (std::is_lvalue_reference_v<decltype(std::declval<const R&>().key())>) {
         R sample{};
         GANT_ASSERT(static_cast<const void*>(&sample.key()) == static_cast<const void*>(&sample));
      }
      return {std::move(name), R::gantTypeName, sizeof(R), sizeof(Key), capacity, queueLength};
   }
};

template <class R>
class MapWriter {
 public:
   using Key = typename Record<R>::Key;
   explicit MapWriter(CollectionWriter& c) : c_(c) {}

   // Insert or replace; false when the stored record is identical.
   bool set(const R& r) {
      const Key& k = r.key();
      return c_.upsertTyped(r, k, [](const Key& key) { return Gant::hashOf(key); });
   }
   bool del(const Key& k) {
      return c_.removeTyped(k, [](const Key& key) { return Gant::hashOf(key); });
   }
   void delAll() { c_.removeAll(); }
   void notify(const Key& k) { c_.notify(&k); }
   std::optional<R> find(const Key& k) const {
      const void* p = c_.find(&k);
      if (!p) return std::nullopt;
      R r;
      std::memcpy(static_cast<void*>(&r), p, sizeof r);
      return r;
   }
   uint32_t size() const noexcept { return c_.size(); }

   // Modify in place, then commit: modify() hands out the record of k (or a
   // new one for k) to change, commit() publishes it.
   R& modify(const Key& k) {
      staged_ = find(k).value_or(R(k));
      open_ = true;
      return *staged_;
   }
   void commit(const R* r) {
      GANT_ASSERT_TEXT(open_ && staged_ && r == &*staged_, "PondMap::directCommit() in no man's land");
      open_ = false;
      try {
         c_.upsert(r);
      } catch (const CorruptError& e) {
         // The table's owner hears of it and notifies the key; the caller
         // still gets the error.
         const Key k = r->key();
         c_.corrupted(e.what(), &k);
         throw;
      }
   }

 private:
   CollectionWriter& c_;
   std::optional<R> staged_;
   bool open_ = false;
};

template <class R>
class MapReader;

// A lookup's outcome: the record when found. The record is copied straight
// from shared memory into this storage (records are trivially copyable, so
// the copy creates the object), never default-built first.
template <class R>
class Found {
 public:
   Found() : status(ReadStatus::absent) {}
   Found(const Found& o) : status(o.status) {
      if (o) std::memcpy(storage_, o.storage_, sizeof(R));
   }
   Found& operator=(const Found& o) {
      status = o.status;
      if (o) std::memcpy(storage_, o.storage_, sizeof(R));
      return *this;
   }

   ReadStatus status;
   explicit operator bool() const noexcept { return status == ReadStatus::found; }
   const R& operator*() const {
      GANT_ASSERT(status == ReadStatus::found);
      return *std::launder(reinterpret_cast<const R*>(storage_));
   }
   const R* operator->() const { return &**this; }
   void* storage() noexcept { return storage_; }

 private:
   friend class MapReader<R>;
   // For a lookup that sets the status once it knows it: the store of a
   // default status first would not be optimised away across the lookup.
   struct Pending {};
   explicit Found(Pending) {}

   alignas(R) unsigned char storage_[sizeof(R)];
};

template <class R>
class MapReader {
 public:
   using Key = typename Record<R>::Key;
   explicit MapReader(const CollectionReader& c) : c_(c) {}
   [[gnu::always_inline]] Found<R> find(const Key& k) const {
      Found<R> f{typename Found<R>::Pending{}};
      const Lookup l = lookupTyped<sizeof(R)>(c_.map(), k, [](const Key& key) { return Gant::hashOf(key); },
                                              f.storage());
      f.status = l.status;
      // Bytes from another process: a record that breaks its own type's
      // rules or its check is reported, never handed out. Each version is
      // checked once.
      if (l.status == ReadStatus::found && !c_.validated(l.slot, l.seq)) [[unlikely]]
         validate(k, l, f);
      return f; // the one object returned: built in the caller's place

   }
   uint32_t size() const { return c_.size(); }

 private:
   // A version seen for the first time: its check and its type's rules.
   [[gnu::noinline]] void validate(const Key& k, Lookup l, Found<R>& f) const {
      for (int attempt = 0; attempt < 64; ++attempt) {
         switch (c_.verify(l.slot, l.seq, f.storage())) {
         case CollectionReader::Check::ok:
            if (!Gant::validValue(*f)) break;
            c_.markValidated(l.slot, l.seq);
            return;
         case CollectionReader::Check::bad: break;
         case CollectionReader::Check::changed: // rewritten since the copy: look again
            l = lookupTyped<sizeof(R)>(c_.map(), k, [](const Key& key) { return Gant::hashOf(key); }, f.storage());
            f.status = l.status;
            if (l.status != ReadStatus::found || c_.validated(l.slot, l.seq)) return;
            continue;
         }
         f.status = ReadStatus::corrupt;
         return;
      }
      // Rewritten faster than it can be checked: a whole copy, unchecked.
   }

   const CollectionReader& c_;
};

// Key bytes delivered to TableHandler::onChange, as a key.
template <class R>
typename Record<R>::Key keyOf(const void* bytes) {
   typename Record<R>::Key k;
   std::memcpy(static_cast<void*>(&k), bytes, sizeof k);
   return k;
}

} // namespace Pond
