#include "fib/StateModel.h"

namespace Routing::Multicast::Fib {

StateModel mountStateModel(Hive::Tree& tree, Pakto::AddressFamily af) {
   StateModel m;
   m.vrfConfig = Hive::mountIs<VrfConfig>(tree, VrfConfig::mountPath(af));
   m.status = Hive::mountIs<Status>(tree, Status::mountPath(af));
   m.vrfEnabledStatus = Hive::mountIs<VrfEnabledStatus>(tree, VrfEnabledStatus::mountPath(af));
   m.mbrIntf = Hive::mountIs<MbrIntf>(tree, MbrIntf::mountPath(af));
   m.hardwareStatus = Hive::mountIs<Hardware::Status>(tree, Hardware::Status::mountPath(af));
   m.pimStatus = Hive::mountIs<Pim::Status>(tree, Pim::Status::mountPath(af));
   m.vxlanStatus = Hive::mountIs<Vxlan::Status>(tree, Vxlan::Status::mountPath(af));
   m.sparseModeStatus = Hive::mountIs<SparseModeStatus>(tree, SparseModeStatus::mountPath(af));
   m.kernelMfib = Hive::mountIs<KernelMfib::StatusColl>(tree, KernelMfib::StatusColl::mountPath(af));
   m.appVrfIntfs = Hive::mountIs<McastCommon::AppVrfIntfs>(tree, McastCommon::AppVrfIntfs::mountPath(af));
   m.pimIntfStatus = Hive::mountIs<PimIntf::Status>(tree, PimIntf::Status::mountPath(af));
   return m;
}

} // namespace Routing::Multicast::Fib
