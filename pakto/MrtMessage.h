#pragma once
// One kernel multicast-routing upcall: what happened (the kernel's own
// codes), to which flow, on which interface, and for a whole-packet upcall
// the packet. Messages are made once and refilled for every upcall.
#include "gant/Generated.h"
#include "pakto/Pkt.h"
#include "platform/IntfId.h"
#include "platform/IpGenAddr.h"

#include <cstdint>

namespace Pakto {

enum class MrtMessageType : uint8_t { NoCache = 1, WrongVif = 2, WholePkt = 3 };

const char* stringValue(MrtMessageType t) noexcept;

class MrtMessage : public Gant::PtrInterface {
 public:
   explicit MrtMessage(MrtMessageType type) noexcept : type_(type) {}

   MrtMessageType type() const noexcept { return type_; }
   const IpGenAddr& source() const noexcept { return source_; }
   void sourceIs(const IpGenAddr& a) noexcept { source_ = a; }
   const IpGenAddr& group() const noexcept { return group_; }
   void groupIs(const IpGenAddr& a) noexcept { group_ = a; }
   // The empty id when the interface is unknown.
   const IntfId& intfId() const noexcept { return intfId_; }
   void intfIdIs(const IntfId& i) noexcept { intfId_ = i; }
   // The kernel's interface index (vif or mif).
   uint16_t vif() const noexcept { return vif_; }
   void vifIs(uint16_t v) noexcept { vif_ = v; }
   const Gant::Ptr<Pkt>& pkt() const noexcept { return pkt_; }
   void pktIs(const Gant::Ptr<Pkt>& p) noexcept { pkt_ = p; }

 private:
   MrtMessageType type_;
   uint16_t vif_ = 0;
   IpGenAddr source_;
   IpGenAddr group_;
   IntfId intfId_;
   Gant::Ptr<Pkt> pkt_;
};

} // namespace Pakto

namespace Gant {
// A message held by an entity shows in text as its kind.
inline EntityRef entityName(const Pakto::MrtMessage* m) {
   if (!m) return {};
   return EntityRef{Name(std::string(Pakto::stringValue(m->type())) + "Message"), false};
}
} // namespace Gant
