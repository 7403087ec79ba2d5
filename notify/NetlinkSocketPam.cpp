// The netlink socket that receives the kernel's multicast cache reports,
// with a classic BPF program that drops, inside the kernel, every report of
// a kind nobody asked for; and its transmit side, which sends reports of
// the same format to the report group.
#include "notify/SocketPam.h"

#include "notify/SocketPamTrace.h"
#include "notify/Upcall.h"
#include "pakto/ControlMessages.h"
#include "pakto/Socket.h"
#include "sys/Calls.h"

#include <linux/filter.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <vector>

namespace Routing::Multicast::Notify {

namespace {

constexpr uint32_t ipv4ReportGroup = 30, ipv6ReportGroup = 31; // RTNLGRP_IPV{4,6}_MROUTE_R
constexpr int userSockProtocol = 2;                             // NETLINK_USERSOCK
constexpr uint32_t bpfAccept = 0xFFFFFFFF;
// The ancillary load that finds a netlink attribute (SKF_AD_OFF + SKF_AD_NLATTR).
constexpr uint32_t bpfFindNlAttr = 0xFFFFF00C;

uint8_t rtgenFamily(Pakto::AddressFamily af) {
   return af == Pakto::ipv4() ? Upcall::rtnlFamilyIpmr : Upcall::rtnlFamilyIp6mr;
}
uint16_t attrNumber(Pakto::AddressFamily af, Upcall::Attr a) {
   return uint16_t(a + (af == Pakto::ipv4() ? Upcall::ipv4AttrOffset : 0));
}

Sys::Result setOption(int sd, int level, int name, uint32_t value) {
   return Sys::calls().setsockopt(sd, level, name, &value, sizeof value);
}

Pakto::IpFilter instruction(uint16_t code, uint32_t k, uint8_t jt, uint8_t jf) {
   Pakto::IpFilter f;
   f.codeIs(code);
   f.jtIs(jt);
   f.jfIs(jf);
   f.kIs(k);
   return f;
}

// A report being built: the netlink header, the family byte, attributes.
class ReportWriter {
 public:
   ReportWriter(uint8_t* buffer, std::size_t room) : at_(buffer), room_(room) {}
   bool header(uint8_t family) {
      nlmsghdr h{};
      h.nlmsg_type = Upcall::rtmNewCacheReport;
      uint8_t gen[Upcall::rtgenmsgBytes] = {family, 0, 0, 0};
      return put(&h, sizeof h) && put(gen, sizeof gen);
   }
   bool attr(uint16_t type, const void* payload, std::size_t bytes) {
      const nlattr a{uint16_t(NLA_HDRLEN + bytes), type};
      const std::size_t padded = NLA_ALIGN(NLA_HDRLEN + bytes);
      if (padded > room_ - used_) return false;
      std::memcpy(at_ + used_, &a, sizeof a);
      std::memcpy(at_ + used_ + NLA_HDRLEN, payload, bytes);
      std::memset(at_ + used_ + NLA_HDRLEN + bytes, 0, padded - NLA_HDRLEN - bytes);
      used_ += padded;
      return true;
   }
   // Sets the header's length; the bytes of the finished report.
   std::size_t finish() {
      const uint32_t len = uint32_t(used_);
      std::memcpy(at_, &len, sizeof len);
      return used_;
   }

 private:
   bool put(const void* p, std::size_t n) {
      if (n > room_ - used_) return false;
      std::memcpy(at_ + used_, p, n);
      used_ += n;
      return true;
   }
   uint8_t* at_;
   std::size_t room_;
   std::size_t used_ = 0;
};

} // namespace

Gant::Ptr<MrtNotifyNetlinkSocketPam> mrtNotifyNetlinkSocketPamFactory(const Gant::Name& name,
                                                                      const Pakto::NamespaceName& netNs) {
   Gant::Ptr<MrtNotifyNetlinkSocketPam> pam = mrtNotifyNetlinkSocketPamFactory(name);
   pam->netNsStore(netNs);
   return pam;
}

uint32_t MrtNotifyNetlinkSocketPam::reportGroup() const {
   if (af() == Pakto::ipv4()) return ipv4ReportGroup;
   if (af() == Pakto::ipv6()) return ipv6ReportGroup;
   GANT_ASSERT(0 && "Address family unknown");
   return 0;
}

void MrtNotifyNetlinkSocketPam::doSockInit() {
   FLASHLOG(pamTrace, 9, "void MrtNotifyNetlinkSocketPam::doSockInit() NS:", netNs());
   Sys::Result opened;
   if (std::getenv("MCAST_NO_NETLINK") || af() != Pakto::ipv6()) {
      FLASHLOG(pamTrace, 5, "This Kernel does not support Netlink sockets for multicast events");
      isRtnlIpv6MrouteRSupportedIs(false);
      opened = Pakto::openSocket(netNs(), AF_NETLINK, SOCK_RAW, userSockProtocol);
   } else {
      FLASHLOG(pamTrace, 5, "Running on Kernel supporting Netlink sockets for multicast events");
      isRtnlIpv6MrouteRSupportedIs(true);
      opened = Pakto::openSocket(netNs(), AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE);
   }
   sdIs(opened.ok() ? int(opened.value) : -1);
   if (sd() == -1) throw Gant::ErrnoError("socket", opened.err);
   const auto fail = [this](const char* what, int err) {
      Sys::discard(Sys::calls().close(sd()));
      sdIs(-1);
      // The next set-up generates the program afresh, as after a disable:
      // appended to this one it would never run past this one's last drop.
      rxFilterDelAll();
      bpfLenIs(0);
      throw Gant::ErrnoError(what, err);
   };
   try {
      doGenerateAndApplyFilter();
   } catch (const Gant::ErrnoError& e) {
      fail(e.call().c_str(), e.errorNo());
   }
   sockaddr_nl local{};
   local.nl_family = AF_NETLINK;
   if (Sys::Result r = Sys::calls().bind(sd(), reinterpret_cast<const sockaddr*>(&local), sizeof local); !r.ok())
      fail("MrtNotifyNetlinkSocketPam::doSockInit: bind", r.err);
   if (Sys::Result r = setOption(sd(), SOL_SOCKET, SO_RCVBUFFORCE, maxRxPktData()); !r.ok())
      fail("setsocketopt(SO_RCVBUFFORCE)", r.err);
   // Anyone may send to the user-socket groups: the sender's credentials
   // come with each datagram so that only root's reports are read.
   if (!isRtnlIpv6MrouteRSupported())
      if (Sys::Result r = setOption(sd(), SOL_SOCKET, SO_PASSCRED, 1); !r.ok()) fail("setsockopt(SO_PASSCRED)", r.err);
   if (Sys::Result r = setOption(sd(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, reportGroup()); !r.ok())
      fail("setsocketopt(NETLINK_ADD_MEMBERSHIP, RTNLGRP_IPV6_MROUTE_R)", r.err);
}

void MrtNotifyNetlinkSocketPam::doAddFilterStmt(uint16_t code, uint32_t k) {
   rxFilterIs(uint8_t(bpfLen()), instruction(code, k, 0, 0));
   bpfLenInc(1);
   FLASHLOG(pamTrace, 9, bpfLen(), " statements", "( code=0x", Hex{code}, ", k=0x", Hex{k}, ")");
}

void MrtNotifyNetlinkSocketPam::doAddFilterJmp(uint16_t code, uint32_t k, uint8_t jt, uint8_t jf) {
   rxFilterIs(uint8_t(bpfLen()), instruction(code, k, jt, jf));
   bpfLenInc(1);
   FLASHLOG(pamTrace, 9, bpfLen(), " statements if true else jump", "( code=0x", Hex{code}, ", k=0x", Hex{k},
            ", jump ", unsigned(jt), " else ", unsigned(jf), ")");
}

void MrtNotifyNetlinkSocketPam::doGenerateAndApplyFilter() {
   FLASHLOG(pamTrace, 9, "void MrtNotifyNetlinkSocketPam::doGenerateAndApplyFilter() NS:", netNs());
   const uint8_t family = rtgenFamily(af());
   const uint32_t typeAttr = attrNumber(af(), Upcall::msgType);
   if (af() != Pakto::ipv4() && af() != Pakto::ipv6()) GANT_ASSERT(0 && "Address family unknown");
   // Absolute loads read big-endian: the host-order message type 96 reads as 0x6000.
   doAddFilterStmt(BPF_LD | BPF_H | BPF_ABS, 4);
   doAddFilterJmp(BPF_JMP | BPF_JEQ | BPF_K, 0x6000, 1, 0);
   doAddFilterStmt(BPF_RET | BPF_K, 0);
   doAddFilterStmt(BPF_LD | BPF_B | BPF_ABS, 16);
   doAddFilterJmp(BPF_JMP | BPF_JEQ | BPF_K, family, 1, 0);
   doAddFilterStmt(BPF_RET | BPF_K, 0);
   doAddFilterStmt(BPF_LD | BPF_IMM, 20);
   doAddFilterStmt(BPF_LDX | BPF_IMM, typeAttr);
   doAddFilterStmt(BPF_LD | BPF_W | BPF_ABS, bpfFindNlAttr);
   doAddFilterStmt(BPF_MISC | BPF_TAX, 0);
   doAddFilterStmt(BPF_LD | BPF_B | BPF_IND, 4);
   // No cache, wrong interface, whole packet: this order whatever the bits.
   const struct {
      uint32_t bit, type;
      const char* text;
   } tests[] = {{0x2, 1, "Filtering No Cache"}, {0x1, 2, "Filtering WrongVif"}, {0x4, 3, "Filtering WholePkt"}};
   for (const auto& t : tests) {
      if (!(options() & t.bit)) continue;
      FLASHLOG(pamTrace, 7, t.text);
      doAddFilterJmp(BPF_JMP | BPF_JEQ | BPF_K, t.type, 0, 1);
      doAddFilterStmt(BPF_RET | BPF_K, bpfAccept);
   }
   doAddFilterStmt(BPF_RET | BPF_K, 0);
   doAttachBpfFilter();
}

void MrtNotifyNetlinkSocketPam::doAttachBpfFilter() {
   FLASHLOG(pamTrace, 9, "void MrtNotifyNetlinkSocketPam::doAttachBpfFilter() NS:", netNs());
   FLASHLOG(pamTrace, 9, "Filter is:");
   std::vector<sock_filter> program;
   program.reserve(bpfLen());
   for (uint32_t i = 0; i < bpfLen(); ++i) {
      const Pakto::IpFilter f = rxFilter(uint8_t(i));
      FLASHLOG(pamTrace, 9, "Filter[", i, "] is", " code:0x", Hex{f.code()}, " jt:", unsigned(f.jt()),
               " jf:", unsigned(f.jf()), " k:0x", Hex{f.k()});
      program.push_back(sock_filter{f.code(), f.jt(), f.jf(), f.k()});
   }
   if (program.empty()) throw Gant::ErrnoError("SO_ATTACH_FILTER option must be supplied with a valid filter", EINVAL);
   const sock_fprog fprog{uint16_t(program.size()), program.data()};
   if (Sys::Result r = Sys::calls().setsockopt(sd(), SOL_SOCKET, SO_ATTACH_FILTER, &fprog, sizeof fprog); !r.ok())
      throw Gant::ErrnoError("setsockopt(SO_ATTACH_FILTER)", r.err);
}

void MrtNotifyNetlinkSocketPam::doDetachBpfFilter() {
   FLASHLOG(pamTrace, 9, "void MrtNotifyNetlinkSocketPam::doDetachBpfFilter() NS:", netNs());
   if (Sys::Result r = setOption(sd(), SOL_SOCKET, SO_DETACH_FILTER, 0); !r.ok())
      throw Gant::ErrnoError("setsockopt(SO_DETACH_FILTER)", r.err);
   rxFilterDelAll();
   bpfLenIs(0);
}

void MrtNotifyNetlinkSocketPam::optionsIs(uint32_t options) {
   FLASHLOG(pamTrace, 9, "void MrtNotifyNetlinkSocketPam::optionsIs(U32) 0x", Hex{options}, " NS:", netNs());
   FLASHLOG(pamTrace, 7, "Options set to 0x", Hex{options});
   if (options == this->options()) return;
   optionsStore(options);
   if (sd() == -1) return;
   doDetachBpfFilter();
   doGenerateAndApplyFilter();
}

void MrtNotifyNetlinkSocketPam::enabledIs(bool enabled) {
   FLASHLOG(pamTrace, 9, "void MrtNotifyNetlinkSocketPam::enabledIs(bool) ", enabled, " NS:", netNs());
   if (enabled == this->enabled()) return enabledStore(enabled);
   if (enabled) {
      if (sd() == -1) doSockInit();
      return startReading();
   }
   const uint32_t group = reportGroup();
   if (Sys::Result r = setOption(sd(), SOL_NETLINK, NETLINK_DROP_MEMBERSHIP, group); !r.ok())
      throw Gant::ErrnoError("setsocketopt(NETLINK_DROP_MEMBERSHIP, RTNLGRP_IPV6_MROUTE_R)", r.err);
   // The loop lets go of the descriptor before its number can be reused.
   fdSmIs(nullptr);
   Sys::discard(Sys::calls().close(sd()));
   if (fileDesc()) fileDesc()->descriptorIs(-1);
   fileDescDel();
   rxFilterDelAll();
   bpfLenIs(0);
   sdIs(-1);
   FLASHLOG(pamTrace, 5, "Mrt pam is disabled");
   enabledStore(false);
}

void MrtNotifyNetlinkSocketPam::doGetRxPkt() {
   FLASHLOG(pamTrace, 9, "void MrtNotifyNetlinkSocketPam::doGetRxPkt() NS:", netNs());
   if (!enabled()) {
      FLASHLOG(pamTrace, 5, "MrtNotifyNetlinkSocketPam not enabled. Aborting action");
      return;
   }
   const Gant::Ptr<Pakto::Pkt> pkt = rxBuffer();
   if (!pkt) return;

   iovec iov{pkt->data(), pkt->size()};
   sockaddr_nl from{};
   alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof(ucred))];
   msghdr msg{};
   msg.msg_name = &from;
   msg.msg_namelen = sizeof from;
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   msg.msg_control = control;
   msg.msg_controllen = sizeof control;
   const Sys::Result got = Sys::calls().recvmsg(sd(), &msg, rxFlags());
   if (rxFailed(got)) return;
   const std::size_t length = std::size_t(got.value);
   FLASHLOG(pamTrace, 9, "Received packet of size ", length);
   rxPktCountInc(1);
   if (length == 0) {
      FLASHLOG(pamTrace, 5, name(), ": ", "Discarding empty packet");
      return;
   }
   if (!fromTrustedSender(from, control, msg.msg_controllen)) {
      rxForgedCountInc(1);
      return;
   }
   pkt->trimTail(length);
   rxPktIs(pkt);
}

bool MrtNotifyNetlinkSocketPam::fromTrustedSender(const sockaddr_nl& from, const uint8_t* control,
                                                  std::size_t controlBytes) const {
   // The routing socket's reports come from the kernel alone (port 0).
   if (isRtnlIpv6MrouteRSupported()) {
      if (from.nl_pid == 0) return true;
      FLASHLOG(pamTrace, 2, name(), ": Discarding report from port ", from.nl_pid);
      return false;
   }
   // Any process may send to a user-socket group: only root's reports count.
   bool found = false, root = false;
   Pakto::forEachControlMessage(control, controlBytes, [&](int level, int type, const uint8_t* data, std::size_t n) {
      if (level != SOL_SOCKET || type != SCM_CREDENTIALS || n < sizeof(ucred)) return true;
      const ucred cred = Upcall::load<ucred>(data);
      found = true, root = cred.uid == 0;
      if (!root) FLASHLOG(pamTrace, 2, name(), ": Discarding report from uid ", cred.uid, " pid ", cred.pid);
      return false;
   });
   if (!found) FLASHLOG(pamTrace, 2, name(), ": Discarding report without the sender's credentials");
   return root;
}

void MrtNotifyNetlinkSocketPam::closeTx() {
   if (enableTx()) Sys::discard(Sys::calls().close(txSd()));
}

void MrtNotifyNetlinkSocketPam::enableTxIs(bool enableTx) {
   FLASHLOG(pamTrace, 9, "void MrtNotifyNetlinkSocketPam::enableTxIs(bool) ", enableTx, " NS:", netNs());
   if (enableTx == this->enableTx()) return;
   if (enableTx) {
      // Reports go to the user-socket group that readers without native
      // reports listen on.
      const Sys::Result opened = Pakto::openSocket(netNs(), AF_NETLINK, SOCK_RAW, userSockProtocol);
      if (!opened.ok()) throw Gant::ErrnoError("socket", opened.err);
      txSdIs(int(opened.value));
      FLASHLOG(pamTrace, 5, "Mrt netlink Tx pam is enabled");
   } else {
      Sys::discard(Sys::calls().close(txSd()));
      txSdIs(-1);
      FLASHLOG(pamTrace, 5, "Mrt netlink Tx pam is disabled");
   }
   enableTxStore(enableTx);
}

void MrtNotifyNetlinkSocketPam::txMrtNotification(const Pakto::MrtMessage& message, uint16_t intfIndex) {
   // An interface index travels as 4 bytes (attribute length 8).
   const uint32_t index = intfIndex;
   txReport(message, Upcall::mifId, &index, sizeof index);
}

void MrtNotifyNetlinkSocketPam::txMrtNotificationWithIntfId(const Pakto::MrtMessage& message, uint64_t intfId) {
   txReport(message, Upcall::intfId, &intfId, sizeof intfId);
}

void MrtNotifyNetlinkSocketPam::txReport(const Pakto::MrtMessage& message, Upcall::Attr intfAttr,
                                         const void* intf, std::size_t intfBytes) {
   FLASHLOG(pamTrace, 9, "void MrtNotifyNetlinkSocketPam::txReport() NS:", netNs());
   Gant::Ptr<Pakto::Pkt> pkt = Pakto::globalPktManager().newPkt();
   if (!pkt) {
      FLASHLOG(pamTrace, 2, "TX: Error - Packet buffer unavailable");
      return;
   }
   pkt->reserve(pkt->maxSize());
   ReportWriter w(pkt->data(), pkt->size());
   const Pakto::AddressFamily family = af();
   const std::size_t addressBytes = Pakto::addressBytes(family);
   const uint8_t type = uint8_t(message.type());
   bool fits = w.header(rtgenFamily(family)) && w.attr(attrNumber(family, Upcall::msgType), &type, 1) &&
               w.attr(attrNumber(family, Upcall::srcAddr), message.source().bytes().data(), addressBytes) &&
               w.attr(attrNumber(family, Upcall::dstAddr), message.group().bytes().data(), addressBytes) &&
               w.attr(attrNumber(family, intfAttr), intf, intfBytes);
   if (fits && message.type() == Pakto::MrtMessageType::WholePkt && message.pkt())
      fits = w.attr(attrNumber(family, Upcall::pkt), message.pkt()->data(), message.pkt()->size());
   if (!fits) {
      FLASHLOG(pamTrace, 2, "TX: Error - Packet buffer unavailable");
      return;
   }
   pkt->trimTail(w.finish());
   txPktIs(pkt);
}

void MrtNotifyNetlinkSocketPam::txPktIs(const Gant::Ptr<Pakto::Pkt>& pkt) {
   FLASHLOG(pamTrace, 9, "void MrtNotifyNetlinkSocketPam::txPktIs(Pakto::Pkt) NS:", netNs());
   if (!pkt) {
      FLASHLOG(pamTrace, 2, "TX: Error - Packet buffer unavailable");
      return;
   }
   if (!enableTx()) {
      FLASHLOG(pamTrace, 5, "Mrt netlink Tx pam is disabled");
      return;
   }
   sockaddr_nl to{};
   to.nl_family = AF_NETLINK;
   to.nl_groups = 1u << (reportGroup() - 1);
   const Sys::Result sent = Sys::calls().sendto(txSd(), pkt->data(), pkt->size(), 0,
                                                reinterpret_cast<const sockaddr*>(&to), sizeof to);
   // A user-socket group send also goes to port 0, which refuses it after
   // the group has had its copy: that refusal is the normal outcome.
   if (!sent.ok() && sent.err != ECONNREFUSED)
      FLASHLOG(pamTrace, 2, "sendmsg failed: ", std::strerror(sent.err));
}

} // namespace Routing::Multicast::Notify
