#include "tools/UpcallCommand.h"

#include "tools/Commands.h"
#include "tools/Signals.h"

#include "loop/EpollLoop.h"
#include "notify/MrtNotifySm.h"
#include "pakto/PamFdSm.h"
#include "pakto/Socket.h"
#include "sys/Calls.h"

#include <map>
#include <ostream>
#include <sstream>

namespace Tool {

using namespace Routing::Multicast::Notify;

const char* const watchUpcallsSynopsis =
    "[--af ipv4|ipv6] [--netns NAME] [--types nocache,wrongvif,wholepkt] [--count N]";
const char* const watchUpcallsDetails =
    "Opens the upcall socket of the family (default ipv6) in network namespace NAME\n"
    "(default: the tool's own), asks the kernel for the upcall kinds named (default:\n"
    "all three) and prints each upcall as it comes: kind, interface index, source and\n"
    "group, and the packet's length for a whole-packet upcall. Interfaces are named\n"
    "as the kernel's multicast interface table in that namespace lists them. Ends when interrupted\n"
    "or after N upcalls, with the count of each kind and of reports dropped because\n"
    "they did not come from the kernel or from root. Needs root.";

namespace {

uint32_t parseTypes(const std::string& text) {
   uint32_t options = 0;
   std::istringstream in(text);
   for (std::string word; std::getline(in, word, ',');) {
      if (word == "nocache") options |= uint32_t(MrtNotifySocketOptions::igmpNoCache);
      else if (word == "wrongvif") options |= uint32_t(MrtNotifySocketOptions::igmpWrongVif);
      else if (word == "wholepkt") options |= uint32_t(MrtNotifySocketOptions::igmpWholePkt);
      else throw UsageError("bad --types '" + text + "': nocache, wrongvif, wholepkt");
   }
   return options;
}

// Prints each upcall the manager counts: each counter rises once per upcall.
struct Printer : MrtNotifyPamManager::Reactor {
   Printer(MrtNotifyPamManager* m, std::ostream& out) : MrtNotifyPamManager::Reactor(m), out(out) {}
   void onNoCacheCounter() override { print("nocache", *notifier()->noCacheMessage()); }
   void onWrongVifCounter() override { print("wrongvif", *notifier()->wrongVifMessage()); }
   void onWholePktCounter() override { print("wholepkt", *notifier()->wholePktMessage()); }
   void print(const char* kind, const Pakto::MrtMessage& m) {
      out << kind << " vif " << m.vif();
      if (auto it = names->find(m.vif()); it != names->end()) out << " intf " << it->second;
      out << " source " << m.source() << " group " << m.group();
      if (m.pkt()) out << " packet " << m.pkt()->size() << " bytes";
      out << std::endl;
      ++seen;
   }
   std::ostream& out;
   const std::map<uint16_t, std::string>* names = nullptr;
   unsigned seen = 0;
};

// The kernel's multicast interfaces in the namespace, by index, as its
// /proc table lists them ("mif name counters... flags").
std::map<uint16_t, std::string> kernelInterfaces(Pakto::AddressFamily af, const Pakto::NamespaceName& ns) {
   std::map<uint16_t, std::string> out;
   const Sys::Result fd = Pakto::openFile(ns, af == Pakto::ipv4() ? "/proc/net/ip_mr_vif" : "/proc/net/ip6_mr_vif");
   if (!fd.ok()) return out;
   std::string text;
   char buffer[4096];
   for (Sys::Result r; (r = Sys::calls().read(int(fd.value), buffer, sizeof buffer)).ok() && r.value > 0;)
      text.append(buffer, std::size_t(r.value));
   Sys::discard(Sys::calls().close(int(fd.value)));
   std::istringstream lines(text);
   std::string line;
   std::getline(lines, line); // the heading
   while (std::getline(lines, line)) {
      std::istringstream words(line);
      unsigned index;
      std::string name;
      if (words >> index >> name && index <= 0xFFFF) out[uint16_t(index)] = name;
   }
   return out;
}

// Names each kernel interface as an interface of this system when its name
// is one, else as a tunnel numbered by its index, so that every upcall on a
// known interface names one.
Gant::Ptr<Routing::KernelMfib::Status> statusOf(const std::map<uint16_t, std::string>& interfaces) {
   auto status = Routing::KernelMfib::statusFactory(L3::VrfName("default"));
   for (const auto& [index, name] : interfaces) {
      Pakto::IntfId id;
      try {
         id = Pakto::IntfId(name);
      } catch (const std::exception&) {
         id = Pakto::IntfId("Tunnel" + std::to_string(index));
      }
      status->intfIdCollIs(index, id);
   }
   return status;
}

} // namespace

int watchUpcallsCommand(std::span<const std::string> args, std::ostream& out) {
   const Args a = parseArgs(args, {"--af", "--netns", "--types", "--count"});
   const std::string afText = a.get("--af", "ipv6");
   if (afText != "ipv4" && afText != "ipv6") throw UsageError("bad --af '" + afText + "': ipv4 or ipv6");
   const Pakto::AddressFamily af = afText == "ipv4" ? Pakto::ipv4() : Pakto::ipv6();
   Pakto::NamespaceName netNs;
   try {
      netNs = Pakto::NamespaceName(a.get("--netns", ""));
   } catch (const std::exception& e) {
      throw UsageError("bad --netns: " + std::string(e.what()));
   }
   const uint32_t options = parseTypes(a.get("--types", "nocache,wrongvif,wholepkt"));
   const unsigned count = argument<uint32_t>("--count", a.get("--count", "0"));

   Loop::EpollLoop loop;
   Pakto::eventLoopIs(&loop);
   struct Unset {
      ~Unset() { Pakto::eventLoopIs(nullptr); }
   } unset;
   auto manager = mrtNotifyPamManagerFactory(af, netNs);
   // On a stock kernel IPv4 reports come over netlink, not the raw socket.
   if (af == Pakto::ipv4()) manager->useNetlinkIs(true);
   manager->pam()->optionsIs(options);
   Printer printer(manager.ptr(), out);
   const auto interfaces = kernelInterfaces(af, netNs);
   printer.names = &interfaces;
   auto sm = mrtNotifySmFactory(manager, statusOf(interfaces));
   out << "watching " << afText << " upcalls" << (netNs.str().empty() ? "" : " in " + std::string(netNs.str()))
       << std::endl;
   Loop::Watch stop = loop.watchReadable(signalFd(), [] {});
   while (!receivedSignal() && (count == 0 || printer.seen < count) && !stopping(out)) loop.runOnce(0.2);
   const auto* pam = manager->pam().ptr();
   uint64_t forged = 0;
   if (const auto* netlink = dynamic_cast<const MrtNotifyNetlinkSocketPam*>(pam)) forged = netlink->rxForgedCount();
   out << "nocache " << manager->noCacheCounter() << ", wrongvif " << manager->wrongVifCounter() << ", wholepkt "
       << manager->wholePktCounter() << ", dropped from other senders " << forged << std::endl;
   return 0;
}

} // namespace Tool
