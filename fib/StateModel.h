#pragma once
// Publishes the multicast FIB's per-family entities in the state tree, each
// at its mount path, so that agents find them by path.
#include "fib/Config.h"
#include "fib/HardwareStatus.h"
#include "fib/KernelMfib.h"
#include "fib/PimIntf.h"
#include "fib/ProtocolStatus.h"
#include "fib/Status.h"
#include "hive/Tree.h"
#include "mcastcommon/AppIntfs.h"

namespace Routing::Multicast::Fib {

struct StateModel {
   Gant::Ptr<VrfConfig> vrfConfig;
   Gant::Ptr<Status> status;
   Gant::Ptr<VrfEnabledStatus> vrfEnabledStatus;
   Gant::Ptr<MbrIntf> mbrIntf;
   Gant::Ptr<Hardware::Status> hardwareStatus;
   Gant::Ptr<Pim::Status> pimStatus;
   Gant::Ptr<Vxlan::Status> vxlanStatus;
   Gant::Ptr<SparseModeStatus> sparseModeStatus;
   Gant::Ptr<KernelMfib::StatusColl> kernelMfib;
   Gant::Ptr<McastCommon::AppVrfIntfs> appVrfIntfs;
   Gant::Ptr<PimIntf::Status> pimIntfStatus;
};

// Mounts (or finds, when already there) every entity of one address family.
StateModel mountStateModel(Hive::Tree& tree, Pakto::AddressFamily af);

} // namespace Routing::Multicast::Fib
