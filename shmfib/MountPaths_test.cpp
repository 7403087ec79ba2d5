// Where every published entity lives in the state tree, per address family,
// and the assertion on a family that has no tree.
#include "fib/Config.h"
#include "fib/HardwareStatus.h"
#include "fib/KernelMfib.h"
#include "fib/PimIntf.h"
#include "fib/ProtocolStatus.h"
#include "fib/Status.h"
#include "mcastcommon/AppIntfs.h"
#include "shmfib/RouteTable.h"

#include <gtest/gtest.h>

namespace {

using AF = Pakto::AddressFamily;
namespace Fib = Routing::Multicast::Fib;

struct MountCase {
   const char* type;
   std::string (*path)(AF);
   const char* ipv4;
   const char* ipv6;
};

const std::vector<MountCase>& mountCases() {
   static const std::vector<MountCase> cases = {
       {"VrfConfig", [](AF af) -> std::string { return Fib::VrfConfig::mountPath(af); },
        "routing/multicast/vrf/config", "routing6/multicast/vrf/config"},
       {"Status", [](AF af) -> std::string { return Fib::Status::mountPath(af); }, "routing/multicast/status",
        "routing6/multicast/status"},
       {"VrfEnabledStatus", [](AF af) -> std::string { return Fib::VrfEnabledStatus::mountPath(af); },
        "routing/multicast/fibenabled/status", "routing6/multicast/fibenabled/status"},
       {"MbrIntf", [](AF af) -> std::string { return Fib::MbrIntf::mountPath(af); },
        "routing/multicast/mbrinterface", "routing6/multicast/mbrinterface"},
       {"Hardware::Status", [](AF af) -> std::string { return Fib::Hardware::Status::mountPath(af); },
        "routing/hardware/multicast/status", "routing6/hardware/multicast/status"},
       {"ReadyStatus sparsemode", [](AF af) -> std::string { return Fib::ReadyStatus::mountPath(af, "sparsemode"); },
        "cell/0/routing/multicast/fibready/status", "cell/0/routing6/multicast/fibready/status"},
       {"ReadyStatus mfwd", [](AF af) -> std::string { return Fib::ReadyStatus::mountPath(af, "mfwd"); },
        "cell/0/routing/multicast/fibready/mfwd/status", "cell/0/routing6/multicast/fibready/mfwd/status"},
       {"PimIntf::Status", [](AF af) -> std::string { return Fib::PimIntf::Status::mountPath(af); },
        "routing/multicast/pimintf/status", "routing6/multicast/pimintf/status"},
       {"Pim::Status", [](AF af) -> std::string { return Routing::Multicast::Pim::Status::mountPath(af); },
        "routing/multicast/pim/global/status", "routing6/multicast/pim/global/status"},
       {"Vxlan::Status", [](AF af) -> std::string { return Routing::Multicast::Vxlan::Status::mountPath(af); },
        "routing/multicast/vxlan/status", "routing6/multicast/vxlan/status"},
       {"SparseModeStatus", [](AF af) -> std::string { return Fib::SparseModeStatus::mountPath(af); },
        "routing/multicast/sparsemode/status", "routing6/multicast/sparsemode/status"},
       {"KernelMfib::StatusColl", [](AF af) -> std::string { return Routing::KernelMfib::StatusColl::mountPath(af); },
        "routing/kernelmfib/status", "routing6/kernelmfib/status"},
       {"AppVrfIntfs", [](AF af) -> std::string { return McastCommon::AppVrfIntfs::mountPath(af); },
        "multicastIntfs/application", "multicastIntfs6/application"},
       {"route table",
        [](AF af) -> std::string {
           return Pond::Multicast::Fib::Status::mountPath(af, L3::VrfName("red"), "pim");
        },
        "routing/multicast/routestatus/red/pim", "routing6/multicast/routestatus/red/pim"},
   };
   return cases;
}

TEST(MountPaths, EveryEntityPerFamily) {
   for (const MountCase& c : mountCases()) {
      SCOPED_TRACE(c.type);
      EXPECT_EQ(c.path(AF::ipv4), c.ipv4);
      EXPECT_EQ(c.path(AF::ipv6), c.ipv6);
   }
}

// Every entity but the route table picks its path through one helper.
TEST(MountPathsDeathTest, AFamilyWithoutATreeAsserts) {
   EXPECT_DEATH(Fib::VrfConfig::mountPath(AF::ipunknown), "false && \"Unsupported address family\"");
   EXPECT_DEATH(Pond::Multicast::Fib::Status::mountPath(AF::ipunknown, L3::VrfName("red"), "pim"),
                "Assertion failed: Unsupported address family");
}

} // namespace
