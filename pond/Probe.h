#pragma once
// The probe's internals that only the table's own sources use: the reader's
// seqlock read of a slot, with the spin limit and the question of why a
// word stays mid-change, and the writer's store of an index tag. Users never
// include this header and it is not installed; the inline lookup in
// Collection.h leaves every unusual case to lookupSlow, out of line.
#include "pond/Collection.h"

namespace Pond {

// How long a reader spins on a slot or index left mid-change before it
// asks why.
constexpr int kMaxReadSpins = 20000;

// Why a word seen odd, at value seen, stays odd. A writer holds a slot or
// the index mid-change only inside one of its changes, which keep the
// entry at the queue's head odd: with that entry even and the word still
// at seen, no writer is changing it. Otherwise the table's owner is asked;
// wait comes after a short sleep.
[[gnu::cold]] Held whyHeld(const CollectionMap& m, const uint32_t& word, uint32_t seen);

inline void cpuRelax() {
#if defined(__i386__) || defined(__x86_64__)
   __builtin_ia32_pause();
#endif
}

// Seqlock read of slot i's record into out (bytes bytes). found or absent
// with the slot's seq (and, when asked, the check written with it); stuck
// when the slot stays mid-write because its writer died, corrupt when no
// writer is writing it.
inline ReadStatus readSlotInto(const CollectionMap& m, uint32_t i, void* out, std::size_t bytes, uint32_t& seq,
                               uint32_t* check = nullptr) {
   SlotHeader* s = m.slot(i);
   for (int spin = 0;; ++spin) {
      uint32_t s1 = loadAcquire(s->seq);
      if (s1 & kSeqWriting) {
         if (spin >= kMaxReadSpins) {
            spin = 0;
            const Held why = whyHeld(m, s->seq, s1);
            if (why == Held::dead) return ReadStatus::stuck;
            if (why == Held::damaged) return ReadStatus::corrupt;
         }
         cpuRelax();
         continue;
      }
      if (check) *check = loadGuarded(s->check);
      copyFromShared(out, m.slotData(i), bytes);
      acquireFence();
      if (loadRelaxed(s->seq) != s1) continue;
      seq = s1;
      return s1 & kSeqLive ? ReadStatus::found : ReadStatus::absent;
   }
}

inline uint8_t loadTag(const uint8_t* tags, uint32_t pos) {
   return static_cast<uint8_t>(loadTagWord(tags, pos / kTagsPerWord) >> (8 * (pos % kTagsPerWord)));
}
// The writer's store of one tag: the tag's word, rewritten whole (the writer
// is the only one to store there, so reading the word first is safe).
inline void storeTag(uint8_t* tags, uint32_t pos, uint8_t tag, std::memory_order order) {
   Word* w = reinterpret_cast<Word*>(tags) + pos / kTagsPerWord;
   const unsigned shift = 8 * (pos % kTagsPerWord);
   std::atomic_ref<Word>(*w).store((*w & ~(Word(0xff) << shift)) | Word(tag) << shift, order);
}

} // namespace Pond
