// The netlink pam's filter program as the kernel holds it. The kernel
// running it, and the sockets the pam reads, are the manager's test.
#include "notify/Notify.h"
#include "notify/testlib/RouterAndHost.h"

#include <gtest/gtest.h>

#include <linux/filter.h>
#include <linux/netlink.h>
#include <unistd.h>

#include <array>

namespace {

using namespace Routing::Multicast::Notify;
using namespace Routing::Multicast::Notify::Test;

// code, jt, jf, k
using Insn = std::array<uint32_t, 4>;
using Program = std::vector<Insn>;

// Up to the upcall type in A: a cache report of the family, its type attribute found.
Program head(bool v4) {
   return {{0x28, 0, 0, 4},          {0x15, 1, 0, 0x6000}, {0x06, 0, 0, 0},  {0x30, 0, 0, 16},
           {0x15, 1, 0, v4 ? 128u : 129u}, {0x06, 0, 0, 0}, {0x00, 0, 0, 20}, {0x01, 0, 0, v4 ? 8u : 1u},
           {0x20, 0, 0, 0xFFFFF00C}, {0x07, 0, 0, 0},      {0x50, 0, 0, 4}};
}
constexpr Insn accept{0x06, 0, 0, 0xFFFFFFFF}, drop{0x06, 0, 0, 0};
constexpr Insn is(uint32_t type) { return {0x15, 0, 1, type}; }

Program attached(int sd) {
   socklen_t n = 0; // in instructions
   if (::getsockopt(sd, SOL_SOCKET, SO_GET_FILTER, nullptr, &n) != 0) return {};
   std::vector<sock_filter> f(n);
   if (::getsockopt(sd, SOL_SOCKET, SO_GET_FILTER, f.data(), &n) != 0) return {};
   Program p;
   for (const sock_filter& i : f) p.push_back({i.code, i.jt, i.jf, i.k});
   return p;
}

TEST(MrtNotifyNetlinkSocketPam, TheProgramFollowsTheKindsAskedFor) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs root to force a receive buffer";
   PamLoop pl;
   Netns ns("alone");
   auto v6 = mrtNotifyNetlinkSocketPamFactory(Gant::Name("v6"), ns.name());
   v6->afIs(Pakto::ipv6());
   auto v4 = mrtNotifyNetlinkSocketPamFactory(Gant::Name("v4"), ns.name());
   const struct {
      MrtNotifyNetlinkSocketPam* pam;
      uint32_t options;
      Program tail;
   } steps[] = {
       {v6.ptr(), 0x5, {is(2), accept, is(3), accept, drop}},
       // Changed while enabled: the program is replaced, not extended.
       {v6.ptr(), 0x0, {drop}},
       {v6.ptr(), 0x7, {is(1), accept, is(2), accept, is(3), accept, drop}},
       {v4.ptr(), 0x2, {is(1), accept, drop}},
   };
   for (const auto& s : steps) {
      SCOPED_TRACE(s.pam->name() + " " + std::to_string(s.options));
      s.pam->optionsIs(s.options);
      if (!s.pam->enabled()) {
         EXPECT_EQ(s.pam->bpfLen(), 0u) << "no socket, nothing generated";
         s.pam->enabledIs(true);
      }
      Program expected = head(s.pam == v4.ptr());
      expected.insert(expected.end(), s.tail.begin(), s.tail.end());
      EXPECT_EQ(s.pam->bpfLen(), expected.size());
      EXPECT_EQ(attached(s.pam->sd()), expected);
   }
}

} // namespace
