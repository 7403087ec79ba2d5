// The relay: upcalls the kernel writes on its IPv6 mroute socket come out
// as netlink reports that an IPv6 manager in the same namespace reads over
// the user-socket group.
#include "notify/MrtIcmpV6RelaySm.h"
#include "notify/MrtNotifySm.h"
#include "notify/Upcall.h"
#include "notify/testlib/RouterAndHost.h"

#include "gant/Codec.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

using namespace Routing::Multicast::Notify;
using namespace Routing::Multicast::Notify::Test;
using Pakto::IntfId;

Pakto::IpGenAddr ip(const char* text) { return Gant::fromText<Pakto::IpGenAddr>(text); }

// The kernel's IPv6 upcall record: mbz, type, mif, then source and group.
std::vector<uint8_t> mrt6msg(uint8_t type, uint16_t mif, const char* source, const char* group,
                             std::size_t payload = 0) {
   std::vector<uint8_t> b(Upcall::mrt6msgBytes + payload, 0xAB);
   b[Upcall::mrt6msgMbz] = 0, b[Upcall::mrt6msgType] = type;
   std::memcpy(&b[Upcall::mrt6msgMif], &mif, 2);
   inet_pton(AF_INET6, source, &b[Upcall::mrt6msgSrc]);
   inet_pton(AF_INET6, group, &b[Upcall::mrt6msgDst]);
   return b;
}

struct NoNetlink {
   NoNetlink() { ::setenv("MCAST_NO_NETLINK", "1", 1); }
   ~NoNetlink() { ::unsetenv("MCAST_NO_NETLINK"); }
};

TEST(Relay, KernelUpcallsReachAConsumerAsReportsAndEachNewSocketRebuildsIt) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs root for network namespaces";
   PamLoop pl;
   RouterAndHost net;
   const NoNetlink noNetlink;
   auto status = Routing::KernelMfib::statusFactory(L3::VrfName("default"));
   status->intfIdCollIs(0, IntfId("Ethernet1"));
   status->intfIdCollIs(1, IntfId("Ethernet2"));
   // The consumer reads the relay's reports on the user-socket group.
   auto manager = mrtNotifyPamManagerFactory(Pakto::ipv6(), net.router());
   manager->pam()->optionsIs(0x7);
   auto sm = mrtNotifySmFactory(manager, status);
   ASSERT_TRUE(manager->pam()->enabled());

   // The kernel's own upcalls, from the mroute socket its owner hands in.
   const Sys::Fd mroute = net.mroute6(true);
   auto relay = mrtIcmpV6RelaySmFactory(net.router(), status);
   relay->mrtSkSdIs(mroute.get());
   ASSERT_TRUE(relay->icmpV6Pam() && relay->icmpV6Pam()->enabled());
   net.sendUdp(AF_INET6, 1, "ff0e::1:5");
   ASSERT_TRUE(pl.loop.runUntil([&] { return manager->noCacheCounter() == 1; }, 3));
   const auto& noCache = *manager->noCacheMessage();
   EXPECT_EQ(noCache.source(), ip(RouterAndHost::hostAddress(AF_INET6, 1).c_str()));
   EXPECT_EQ(noCache.group(), ip("ff0e::1:5"));
   EXPECT_EQ(noCache.intfId(), IntfId("Ethernet2"));
   net.sendUdp(AF_INET6, 0, "ff0e::1:6", mroute.get());
   ASSERT_TRUE(pl.loop.runUntil([&] { return manager->wrongVifCounter() == 1; }, 3));
   EXPECT_EQ(manager->wrongVifMessage()->intfId(), IntfId("Ethernet1"));
   EXPECT_EQ(relay->relayed(), 2u);

   // What the kernel never writes, through a socket of the test's own: a
   // type that is none, a whole packet.
   int a[2];
   ASSERT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM, 0, a), 0);
   const Gant::Ptr<MrtNotifySocketPam> kernelPam = relay->icmpV6Pam();
   relay->mrtSkSdIs(a[0]);
   EXPECT_FALSE(kernelPam->enabled());
   EXPECT_EQ(relay->icmpV6Pam()->sd(), a[0]) << "both pams made again, on the new socket";
   for (const std::vector<uint8_t>& bytes :
        {mrt6msg(9, 0, "2001:db8::7", "ff0e::1:7"), mrt6msg(3, 1, "2001:db8::8", "ff0e::1:8", 12)})
      ASSERT_EQ(::send(a[1], bytes.data(), bytes.size(), 0), ssize_t(bytes.size()));
   ASSERT_TRUE(pl.loop.runUntil([&] { return manager->wholePktCounter() == 1; }, 3));
   EXPECT_EQ(relay->icmpV6Pam()->rxMrt6msgCount(), 2u);
   EXPECT_EQ(relay->relayed(), 3u);
   const auto& whole = *manager->wholePktMessage();
   EXPECT_EQ(whole.intfId(), IntfId("Ethernet2"));
   ASSERT_TRUE(whole.pkt());
   EXPECT_EQ(whole.pkt()->size(), 12u) << "the record is gone, the payload stays";

   // Off: nothing is left, and the handed-in sockets stay their owners'.
   relay->mrtSkSdIs(0);
   EXPECT_FALSE(relay->icmpV6Pam());
   EXPECT_FALSE(relay->netlinkPam());
   EXPECT_EQ(::send(a[1], "x", 1, 0), 1);
   EXPECT_NE(::fcntl(mroute.get(), F_GETFD), -1) << "the mroute socket is still open";
   ::close(a[0]), ::close(a[1]);
}

} // namespace
