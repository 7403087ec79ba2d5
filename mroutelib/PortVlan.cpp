// The port/VLAN set's hash, equality, ordering and text: the registry of
// shared outgoing-interface sets is keyed by them, so each follows a fixed
// order of fields.
#include "mroutelib/PortVlan.h"

#include <sstream>

namespace MrouteLib {

namespace {

// One-at-a-time hash, one byte at a time.
struct OneAtATime {
   uint32_t h = 0;
   void byte(uint8_t b) noexcept {
      h += b;
      h += h << 10;
      h ^= h >> 6;
   }
   void u16(uint16_t v) noexcept {
      byte(static_cast<uint8_t>(v));
      byte(static_cast<uint8_t>(v >> 8));
   }
   void u32(uint32_t v) noexcept {
      for (int i = 0; i < 4; ++i) byte(static_cast<uint8_t>(v >> 8 * i));
   }
   // Low word first, each least significant byte first.
   void intf(const Pakto::IntfId& id) noexcept {
      u32(static_cast<uint32_t>(id.value()));
      u32(static_cast<uint32_t>(id.value() >> 32));
   }
   void members(const Gant::OrderedMap<PortVlan, bool>& m) noexcept {
      for (const auto& [pv, on] : m) {
         intf(pv.port());
         u32(pv.outLif().value());
      }
   }
   uint32_t finish() noexcept {
      h += h << 3;
      h ^= h >> 11;
      h += h << 15;
      return h;
   }
};

template <class T>
int cmp(const T& a, const T& b) {
   return a < b ? -1 : b < a ? 1 : 0;
}

// Unless equal: fewer members first, then the first differing pair in
// ascending order. A pair that differs only in its bool does not decide.
int cmpMembers(const Gant::OrderedMap<PortVlan, bool>& a, const Gant::OrderedMap<PortVlan, bool>& b) {
   if (a == b) return 0;
   if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
   for (auto i = a.begin(), j = b.begin(); i != a.end(); ++i, ++j)
      if (int c = cmp(i->first, j->first)) return c;
   return 0;
}

int cmpNatVlans(const Gant::OrderedMap<Bridging::VlanId, bool>& a,
                const Gant::OrderedMap<Bridging::VlanId, bool>& b) {
   if (a == b) return 0;
   if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
   for (auto i = a.begin(), j = b.begin(); i != a.end(); ++i, ++j) {
      if (int c = cmp(i->first, j->first)) return c;
      if (int c = cmp(i->second, j->second)) return c;
   }
   return 0;
}

void prettyMember(std::ostream& os, const PortVlan& pv) {
   os << (pv.isOutLif() ? " outLif " : " vlan ") << pv.outLif().value() << ":" << pv.port().name();
}

} // namespace

uint32_t PortVlanSet::computeHash() const noexcept {
   OneAtATime h;
   h.members(portVlan_);
   for (const auto& [vlan, on] : natVlan_) h.u16(vlan.value());
   h.u16(acceptingVlanId_.value());
   h.intf(currentIif_);
   h.members(portVlanFrr_);
   return h.finish();
}

uint32_t PortVlanSet::gantHash() const { return hash(); }

// The hashes first, so that unequal sets (cached hashes) part without a
// walk of their members.
bool PortVlanSet::operator==(const PortVlanSet& o) const {
   if (hash() != o.hash()) return false;
   if (ignoreType_ != o.ignoreType_) return false;
   if (!ignoreType_ && type_ != o.type_) return false;
   return portVlan_ == o.portVlan_ && toCpuPurpose_ == o.toCpuPurpose_ && featureFlag_ == o.featureFlag_ &&
          acceptingVlanId_ == o.acceptingVlanId_ && natVlan_ == o.natVlan_ && fastdrop_ == o.fastdrop_ &&
          currentIif_ == o.currentIif_ && portVlanFrr_ == o.portVlanFrr_;
}

// Unlike equality, the type orders sets whatever ignoreType says.
int PortVlanSet::compare(const PortVlanSet& o) const {
   if (int c = cmpMembers(portVlan_, o.portVlan_)) return c;
   if (int c = cmpMembers(portVlanFrr_, o.portVlanFrr_)) return c;
   if (int c = cmp(toCpuPurpose_.value(), o.toCpuPurpose_.value())) return c;
   if (int c = cmp(featureFlag_, o.featureFlag_)) return c;
   if (int c = cmp(static_cast<int32_t>(type_), static_cast<int32_t>(o.type_))) return c;
   if (int c = cmp(acceptingVlanId_.value(), o.acceptingVlanId_.value())) return c;
   if (int c = cmpNatVlans(natVlan_, o.natVlan_)) return c;
   if (int c = cmp(fastdrop_, o.fastdrop_)) return c;
   if (int c = cmp(currentIif_, o.currentIif_)) return c;
   return cmp(ignoreType_, o.ignoreType_);
}

// The hexadecimal mode set for the feature flag stays on for the rest of
// the line, hash included: traces have always read that way.
Gant::String PortVlanSet::pretty() const {
   std::ostringstream os;
   os << portVlan_.size() << " PVs -";
   if (toCpu() || featureFlag_) {
      os << " (";
      if (toCpu()) os << "Cpu ";
      if (featureFlag_) os << "0x" << std::hex << featureFlag_;
      os << ")";
   }
   os << " acceptingVlanId: " << acceptingVlanId_.value() << " hash: " << hash();
   for (const auto& [pv, on] : portVlan_) prettyMember(os, pv);
   if (!portVlanFrr_.empty()) {
      os << " currentIif: " << currentIif_.name();
      for (const auto& [pv, on] : portVlanFrr_) prettyMember(os, pv);
   }
   return os.str();
}

// Collections print as None.
void PortVlanSet::gantText(std::string& out) const {
   out += "Value('MrouteLib::PortVlanSet', ** {'portVlan': None, 'toCpuPurpose': ";
   Gant::Codec<ToCpuPurpose>::text(out, toCpuPurpose_);
   out += ", 'featureFlag': ";
   Gant::Codec<uint32_t>::text(out, featureFlag_);
   out += ", 'cachedHash': ";
   Gant::Codec<uint32_t>::text(out, cachedHash_);
   out += ", 'type': ";
   Gant::Codec<Routing::Multicast::Fib::RouteKeyType>::text(out, type_);
   out += ", 'acceptingVlanId': ";
   Gant::Codec<Bridging::VlanIdOrNone>::text(out, acceptingVlanId_);
   out += ", 'natVlan': None, 'fastdrop': ";
   Gant::Codec<bool>::text(out, fastdrop_);
   out += ", 'currentIif': ";
   Gant::Codec<Pakto::IntfId>::text(out, currentIif_);
   out += ", 'portVlanFrr': None, 'ignoreType': ";
   Gant::Codec<bool>::text(out, ignoreType_);
   out += "})";
}

PortVlanSet PortVlanSet::gantParse(Gant::TextReader& r) {
   GANT_ASSERT(!"No String constructor for PortVlanSet - has collection");
   (void)r;
   return {};
}

} // namespace MrouteLib
