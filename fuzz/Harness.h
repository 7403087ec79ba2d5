#pragma once
// What the upcall fuzzers share. A target is a few lines:
//
//    extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
//       auto& m = Fuzz::manager(Pakto::ipv4(), false);
//       Fuzz::check(m, m.readMrtMessage(Fuzz::packet(data, size), Fuzz::status()));
//       return 0;
//    }
//
// A manager serves every input of its kind, as one serves every packet of a
// process: making one per input halves the rate. A parse refills its
// message from clean and its counters start at zero, so a crash still
// replays from its input alone. The parsers trace at every level, so the formatting of what they
// decoded (addresses, interface ids) is fuzzed too; the lines go to the
// in-memory ring only, and to stderr too when MCASTFIB_FUZZ_TRACE is set,
// to see what the parser made of one input:
//
//    MCASTFIB_FUZZ_TRACE=1 build/fuzz/fuzz/fuzz_raw_igmpmsg crash-<sha1>
#include "flashlog/Config.h"
#include "flashlog/Flashlog.h"
#include "notify/Notify.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace Fuzz {

// vif -> interface for every vif: the kernel reports only vifs that exist,
// and an agent maps each vif it adds before the kernel can report on it (a
// report for a vif the agent does not map stops the parser on purpose).
inline Gant::Ptr<const Routing::KernelMfib::Status> status() {
   static const Gant::Ptr<const Routing::KernelMfib::Status> s = [] {
      auto st = Routing::KernelMfib::statusFactory(L3::VrfName("default"));
      for (uint32_t vif = 0; vif <= 0xFFFF; ++vif) st->intfIdCollIs(uint16_t(vif), Pakto::IntfId("Ethernet" + std::to_string(vif + 1)));
      return st;
   }();
   return s;
}

// The manager for af reading netlink or the raw socket, its counters zero.
inline Routing::Multicast::Notify::MrtNotifyPamManager& manager(Pakto::AddressFamily af, bool netlink) {
   [[maybe_unused]] static const bool traced = [] {
      Flashlog::configure("Mroute::MrtNotify=9,Mroute::MrtNotify::Upcalls=9,Mroute::MrtIcmpV6Relay=9");
      if (std::getenv("MCASTFIB_FUZZ_TRACE")) Flashlog::setSink(Flashlog::fdSink(2));
      return true;
   }();
   static Gant::Ptr<Routing::Multicast::Notify::MrtNotifyPamManager> kept[2][2];
   auto& m = kept[af == Pakto::ipv6()][netlink];
   if (!m) {
      m = Routing::Multicast::Notify::mrtNotifyPamManagerFactory(af, Pakto::NamespaceName());
      m->useNetlinkIs(netlink);
   }
   m->noCacheCounterIs(0);
   m->wrongVifCounterIs(0);
   m->wholePktCounterIs(0);
   return *m;
}

// The input as a received packet, in a buffer of exactly its size, so that
// AddressSanitizer stops any read past its end.
inline Gant::Ptr<Pakto::Pkt> packet(const uint8_t* data, std::size_t size) {
   Gant::Ptr<Pakto::Pkt> p(new Pakto::Pkt(size));
   p->assign(data, size);
   return p;
}

// Reads every byte of a packet a message holds, so that a packet pointing
// past its buffer stops the run.
inline void readAll(const Gant::Ptr<Pakto::Pkt>& p) {
   if (!p) return;
   volatile uint8_t sum = 0;
   for (std::size_t i = 0; i < p->size(); ++i) sum = uint8_t(sum + p->data()[i]);
}

// What any parse must leave, whatever the bytes: at most one message, one of
// the manager's three, counted once; addresses of the manager's family or
// none; a packet, when a message holds one, readable to its last byte.
inline void check(const Routing::Multicast::Notify::MrtNotifyPamManager& m, const Gant::Ptr<Pakto::MrtMessage>& msg) {
   const uint32_t counted = m.noCacheCounter() + m.wrongVifCounter() + m.wholePktCounter();
   if (counted != (msg ? 1u : 0u)) std::abort();
   if (!msg) return;
   if (msg != m.noCacheMessage() && msg != m.wrongVifMessage() && msg != m.wholePktMessage()) std::abort();
   for (const Pakto::IpGenAddr& a : {msg->source(), msg->group()})
      if (a.af() != m.af() && a != Pakto::IpGenAddr()) std::abort();
   readAll(msg->pkt());
}

} // namespace Fuzz
