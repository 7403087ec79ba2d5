// The relay: mrt6msg records read from a handed-in socket come out as
// netlink cache reports that an IPv6 manager in the same namespace reads.
#include "notify/MrtIcmpV6RelaySm.h"
#include "notify/MrtNotifySm.h"
#include "notify/Upcall.h"

#include "loop/EpollLoop.h"
#include "pakto/PamFdSm.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace Routing::Multicast::Notify;

// The kernel's IPv6 upcall record: mbz, type, mif, then source and group.
std::vector<uint8_t> mrt6msg(uint8_t type, uint16_t mif, const char* source, const char* group,
                             std::size_t payload = 0) {
   std::vector<uint8_t> b(Upcall::mrt6msgBytes + payload, 0xAB);
   b[Upcall::mrt6msgMbz] = 0;
   b[Upcall::mrt6msgType] = type;
   std::memcpy(&b[Upcall::mrt6msgMif], &mif, 2);
   inet_pton(AF_INET6, source, &b[Upcall::mrt6msgSrc]);
   inet_pton(AF_INET6, group, &b[Upcall::mrt6msgDst]);
   return b;
}

struct Relay : ::testing::Test {
   void SetUp() override {
      if (::geteuid() != 0) GTEST_SKIP() << "needs root to create a network namespace";
      ASSERT_EQ(std::system(("ip netns add " + ns).c_str()), 0);
      ::setenv("MCAST_NO_NETLINK", "1", 1);
      Pakto::eventLoopIs(&loop);
      status->intfIdCollIs(4, Pakto::IntfId("Ethernet4"));
   }
   void TearDown() override {
      ::unsetenv("MCAST_NO_NETLINK");
      Pakto::eventLoopIs(nullptr);
      if (::geteuid() == 0) {
         EXPECT_EQ(std::system(("ip netns del " + ns).c_str()), 0);
      }
   }
   std::string ns = "mcastfib-relay-" + std::to_string(::getpid());
   Loop::EpollLoop loop;
   Gant::Ptr<Routing::KernelMfib::Status> status = Routing::KernelMfib::statusFactory(L3::VrfName("default"));
};

TEST_F(Relay, UpcallsGoOutAsReportsAndEachNewSocketRebuildsIt) {
   int a[2], b[2];
   ASSERT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM, 0, a), 0);
   ASSERT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM, 0, b), 0);
   const Pakto::NamespaceName netNs(ns);
   // The consumer: an IPv6 manager reading the relay's reports.
   auto manager = mrtNotifyPamManagerFactory(Pakto::ipv6(), netNs);
   manager->pam()->optionsIs(0x7);
   auto sm = mrtNotifySmFactory(manager, status);
   ASSERT_TRUE(manager->pam()->enabled());

   auto relay = mrtIcmpV6RelaySmFactory(netNs, status);
   relay->mrtSkSdIs(a[0]);
   ASSERT_TRUE(relay->icmpV6Pam() && relay->icmpV6Pam()->enabled());
   ASSERT_TRUE(relay->netlinkPam() && relay->netlinkPam()->enableTx());
   const Gant::Ptr<MrtNotifySocketPam> firstPam = relay->icmpV6Pam();

   const auto send = [](int fd, const std::vector<uint8_t>& bytes) {
      ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), 0), ssize_t(bytes.size()));
   };
   send(a[1], mrt6msg(1, 4, "2001:db8::7", "ff0e::1:7"));
   send(a[1], {1, 1, 0, 0});                              // not an upcall: the first byte is not 0
   send(a[1], mrt6msg(9, 4, "2001:db8::7", "ff0e::1:7")); // no such upcall type
   send(a[1], mrt6msg(3, 4, "2001:db8::8", "ff0e::1:8", 12));
   ASSERT_TRUE(loop.runUntil([&] { return manager->noCacheCounter() + manager->wholePktCounter() == 2; }, 3));
   EXPECT_EQ(relay->relayed(), 2u);
   EXPECT_EQ(relay->icmpV6Pam()->rxPktCount(), 4u);
   EXPECT_EQ(relay->icmpV6Pam()->rxMrt6msgCount(), 3u);
   const auto& whole = manager->wholePktMessage();
   EXPECT_EQ(whole->source(), Gant::fromText<Pakto::IpGenAddr>("2001:db8::8"));
   EXPECT_EQ(whole->group(), Gant::fromText<Pakto::IpGenAddr>("ff0e::1:8"));
   EXPECT_EQ(whole->intfId(), Pakto::IntfId("Ethernet4"));
   ASSERT_TRUE(whole->pkt());
   EXPECT_EQ(whole->pkt()->size(), 12u) << "the record is gone, the payload stays";
   EXPECT_EQ(manager->noCacheMessage()->source(), Gant::fromText<Pakto::IpGenAddr>("2001:db8::7"));

   // A new socket: both pams are made again, on the new descriptor.
   relay->mrtSkSdIs(b[0]);
   EXPECT_NE(relay->icmpV6Pam(), firstPam);
   EXPECT_FALSE(firstPam->enabled());
   EXPECT_EQ(relay->icmpV6Pam()->sd(), b[0]);
   send(b[1], mrt6msg(2, 4, "2001:db8::9", "ff0e::1:9"));
   ASSERT_TRUE(loop.runUntil([&] { return manager->wrongVifCounter() == 1; }, 3));
   EXPECT_EQ(manager->wrongVifMessage()->intfId(), Pakto::IntfId("Ethernet4"));

   // Off: nothing is left behind, and the handed-in socket stays open.
   relay->mrtSkSdIs(0);
   EXPECT_FALSE(relay->icmpV6Pam());
   EXPECT_FALSE(relay->netlinkPam());
   EXPECT_EQ(::send(b[1], "x", 1, 0), 1);
   for (int fd : {a[0], a[1], b[0], b[1]}) ::close(fd);
}

} // namespace
