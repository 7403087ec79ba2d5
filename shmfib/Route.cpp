// The route record's hand-written operations: the outgoing-interface set,
// the (*,G) test, difference and masking, and the one-line summary.
#include "shmfib/Route.h"

#include <bit>
#include <cstdio>

namespace Pond::Multicast::Fib {

void Route::oifIs(OifIndex i, bool on) {
   GANT_ASSERT(i != OifIndex::null());
   unsigned w = i.value() / 64;
   uint64_t bit = uint64_t(1) << (i.value() % 64);
   oifBitmapIs(w, on ? (oifBitmap(w) | bit) : (oifBitmap(w) & ~bit));
}

bool Route::oifDel(OifIndex i) {
   bool was = oif(i);
   oifIs(i, false);
   return was;
}

bool Route::oif(OifIndex i) const {
   if (i == OifIndex::null()) return false;
   return (oifBitmap(i.value() / 64) >> (i.value() % 64)) & 1;
}

// Only whole words up to the one holding maxOifIndex are searched; bits
// above maxOifIndex within that last word are still found.
OifIndex Route::nextOif(OifIndex prev) const {
   unsigned word = 0;
   uint64_t mask = ~uint64_t(0);
   if (prev != OifIndex::null()) {
      word = prev.value() / 64;
      unsigned bit = prev.value() % 64;
      mask = bit == 63 ? 0 : ~uint64_t(0) << (bit + 1);
   }
   if (maxOifIndex_ == OifIndex::null()) return OifIndex::null();
   const unsigned last = maxOifIndex_.value() / 64;
   for (; word <= last && word < oifBitmapCount; ++word, mask = ~uint64_t(0)) {
      uint64_t bits = oifBitmap(word) & mask;
      if (bits) return OifIndex(word * 64 + static_cast<unsigned>(std::countr_zero(bits)));
   }
   return OifIndex::null();
}

// Modulo 256 on purpose: a route with 256 outgoing interfaces reports 0.
uint8_t Route::oifs() const {
   unsigned n = 0;
   for (unsigned w = 0; w < oifBitmapCount; ++w) n += static_cast<unsigned>(std::popcount(oifBitmap(w)));
   return static_cast<uint8_t>(n);
}

// A bidirectional group route (non-zero rpaId) is never (*,G).
bool Route::isStarG() const {
   if (!*this) return false;
   return key_.s().len() == 0 && rpaId_.value() == 0;
}

Route Route::operator^(const Route& b) const {
   Route r(key_);
   for (unsigned w = 0; w < oifBitmapCount; ++w) r.oifBitmapIs(w, oifBitmap(w) ^ b.oifBitmap(w));
   auto pick = [](const Pakto::IntfId& a, const Pakto::IntfId& other) {
      if (a == other) return Pakto::IntfId();
      return !a ? other : a;
   };
   r.iif_ = pick(iif_, b.iif_);
   r.notify_ = pick(notify_, b.notify_);
   r.fastdrop_ = pick(fastdrop_, b.fastdrop_);
   r.iifFrr_ = pick(iifFrr_, b.iifFrr_);
   r.maxOifIndex_ = OifIndex(511);
   r.routeFlags_ = RouteFlags(routeFlags_.value() ^ b.routeFlags_.value());
   r.iifFlags_ = IifFlags(iifFlags_.value() ^ b.iifFlags_.value());
   return r;
}

// This route is the mask: it selects which fields of r are taken.
Route Route::operator&(const Route& r) const {
   Route out(key_);
   for (unsigned w = 0; w < oifBitmapCount; ++w) out.oifBitmapIs(w, oifBitmap(w) & r.oifBitmap(w));
   out.maxOifIndex_ = OifIndex(511);
   if (!!iif_) {
      out.iif_ = r.iif_;
      out.iifFlags_ = r.iifFlags_;
   }
   if (!!notify_) out.notify_ = r.notify_;
   if (!!fastdrop_) out.fastdrop_ = r.fastdrop_;
   if (!!iifFrr_) out.iifFrr_ = r.iifFrr_;
   out.routeFlags_ = r.routeFlags_;
   out.version_ = r.version_;
   return out;
}

Gant::String Route::pondString() const {
   char buf[64];
   Gant::String out = "[";
   out += key_.pretty();
   std::snprintf(buf, sizeof buf, "] F 0x%x 0x%x", routeFlags_.value(), iifFlags_.value());
   out += buf;
   out += " I ";
   out += iif_.name();
   out += " N ";
   out += notify_.name();
   out += " S ";
   out += fastdrop_.name();
   out += " F ";
   out += iifFrr_.name();
   out += " O";
   for (unsigned w = oifBitmapCount; w-- > 0;) {
      std::snprintf(buf, sizeof buf, " 0x%llx", static_cast<unsigned long long>(oifBitmap(w)));
      out += buf;
   }
   std::snprintf(buf, sizeof buf, " max %u ver %u priority %u", unsigned(maxOifIndex_.value()), version_,
                 unsigned(routePriority_.value()));
   out += buf;
   return out;
}

} // namespace Pond::Multicast::Fib
