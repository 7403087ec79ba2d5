#pragma once
// The three upcall messages, one class per kind, so that a consumer's
// handler is typed by what it receives.
#include "pakto/MrtMessage.h"

namespace Routing::Multicast::Notify {

struct NoCacheMessage : Pakto::MrtMessage {
   NoCacheMessage() noexcept : MrtMessage(Pakto::MrtMessageType::NoCache) {}
};
struct WrongVifMessage : Pakto::MrtMessage {
   WrongVifMessage() noexcept : MrtMessage(Pakto::MrtMessageType::WrongVif) {}
};
struct WholePktMessage : Pakto::MrtMessage {
   WholePktMessage() noexcept : MrtMessage(Pakto::MrtMessageType::WholePkt) { pktIs(nullptr); }
};

inline Gant::Ptr<NoCacheMessage> noCacheMessageFactory() { return Gant::Ptr<NoCacheMessage>(new NoCacheMessage); }
inline Gant::Ptr<WrongVifMessage> wrongVifMessageFactory() { return Gant::Ptr<WrongVifMessage>(new WrongVifMessage); }
inline Gant::Ptr<WholePktMessage> wholePktMessageFactory() { return Gant::Ptr<WholePktMessage>(new WholePktMessage); }

} // namespace Routing::Multicast::Notify
