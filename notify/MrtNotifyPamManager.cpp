// The upcall manager's socket: raw or netlink, chosen by family and
// useNetlink, with the requested upcall kinds and the enabled state carried
// across a switch.
#include "notify/Notify.h"

#include "flashlog/Flashlog.h"

namespace Routing::Multicast::Notify {

namespace {
Flashlog::Handle& trace = Flashlog::handle("Mroute::MrtNotify");
const Gant::Name pamName("MrtNotify");
} // namespace

Gant::Ptr<MrtNotifyPamManager> mrtNotifyPamManagerFactory(Pakto::AddressFamily af,
                                                          const Pakto::NamespaceName& netNs) {
   auto m = mrtNotifyPamManagerFactory(Gant::Name(std::string("MrtNotifyPamManager-") + stringValue(af)));
   m->afIs(af);
   m->netNsIs(netNs);
   m->handlePamInit();
   return m;
}

void MrtNotifyPamManager::wholePktMessageIs() { wholePktMessageIs(wholePktMessageFactory()); }
void MrtNotifyPamManager::noCacheMessageIs() { noCacheMessageIs(noCacheMessageFactory()); }
void MrtNotifyPamManager::wrongVifMessageIs() { wrongVifMessageIs(wrongVifMessageFactory()); }
void MrtNotifyPamManager::wholePktMessageDel() { wholePktMessageIs(nullptr); }
void MrtNotifyPamManager::noCacheMessageDel() { noCacheMessageIs(nullptr); }
void MrtNotifyPamManager::wrongVifMessageDel() { wrongVifMessageIs(nullptr); }

void MrtNotifyPamManager::useNetlinkIs(bool useNetlink) {
   if (useNetlink == this->useNetlink()) return;
   useNetlinkStore(useNetlink);
   handlePamInit();
}

void MrtNotifyPamManager::handlePamInit() {
   FLASHLOG(trace, 9, "void MrtNotifyPamManager::handlePamInit()");
   if (!pam()) {
      wrongVifMessageIs();
      noCacheMessageIs();
      wholePktMessageIs();
   }
   if (af() == Pakto::ipv4()) {
      bool wasEnabled = false;
      uint32_t options = 0;
      if (pam()) {
         wasEnabled = pam()->enabled();
         options = pam()->options();
         if (wasEnabled) {
            FLASHLOG(trace, 5, "Uninitializing MRT notify Pam for IPv4");
            pam()->enabledIs(false);
         }
      }
      pamIs(nullptr);
      if (useNetlink()) {
         FLASHLOG(trace, 5, "Initializing MRT Notify Netlink Pam for IPv4");
         pamIs(mrtNotifyNetlinkSocketPamFactory(pamName, netNs()));
      } else {
         FLASHLOG(trace, 5, "Initializing MRT Notify Pam for IPv4");
         pamIs(mrtNotifySocketPamFactory(pamName));
         pam()->netNsIs(netNs());
      }
      pam()->optionsIs(options);
      pam()->enabledIs(wasEnabled);
   } else if (af() == Pakto::ipv6()) {
      FLASHLOG(trace, 5, "Initializing Pam for IPv6( Netlink )");
      if (!pam()) pamIs(mrtNotifyNetlinkSocketPamFactory(pamName, netNs()));
      pam()->afIs(Pakto::ipv6());
   } else {
      GANT_ASSERT(0 && "Unsupported address family.");
   }
}

} // namespace Routing::Multicast::Notify
