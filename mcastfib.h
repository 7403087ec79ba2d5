#pragma once
// The whole library in one include.

// Type framework
#include "gant/Assert.h"
#include "gant/Codec.h"
#include "gant/Entity.h"
#include "gant/Error.h"
#include "gant/Generated.h"
#include "gant/Ptr.h"
#include "gant/TypeInfo.h"

// Platform
#include "flashlog/Config.h"
#include "flashlog/Flashlog.h"
#include "hive/Dir.h"
#include "hive/Tree.h"
#include "loop/EpollLoop.h"
#include "loop/EventLoop.h"
#include "platform/EthAddr.h"
#include "platform/IntfId.h"
#include "platform/IpAddr.h"
#include "platform/IpGenAddr.h"
#include "platform/NamespaceName.h"
#include "platform/VlanId.h"
#include "platform/VrfName.h"
#include "sys/Calls.h"
#include "sys/Fd.h"

// Route keys and the multicast FIB state model
#include "fib/Config.h"
#include "fib/GroupKey.h"
#include "fib/HardwareStatus.h"
#include "fib/KernelMfib.h"
#include "fib/ProtocolStatus.h"
#include "fib/RouteKey.h"
#include "fib/StateModel.h"
#include "fib/Status.h"
#include "hive/MountPath.h"
#include "mcastcommon/AppIntfs.h"
#include "platform/AddressFamily.h"
#include "platform/IntfBoundaryStatus.h"
#include "fib/Counter.h"
#include "fib/PimIntf.h"

// Shared-memory tables and the shared-memory MFIB records
#include "pond/Map.h"
#include "pond/Table.h"
#include "pond/TableEntity.h"
#include "shmfib/Route.h"
#include "shmfib/RouteTable.h"
#include "shmfib/DirCleanup.h"
#include "shmfib/DirMirror.h"
#include "shmfib/DirPublisher.h"
#include "shmfib/MfibDirSm.h"
#include "shmfib/MfibDirWriter.h"
#include "shmfib/MfibProducer.h"
#include "shmfib/MfibReader.h"
#include "shmfib/OrderRouteSm.h"
#include "shmfib/RouteIntfIterator.h"

// Bit index allocator
#include "bitmapper/BitMapper.h"
#include "bitmapper/BitMapperSm.h"

// Kernel upcalls
#include "notify/MrtIcmpV6RelaySm.h"
#include "notify/MrtNotifySm.h"
#include "notify/Notify.h"
#include "notify/SocketPam.h"
#include "pakto/PamFdSm.h"
#include "pakto/Socket.h"

// Hardware mroute library and multicast group requests
#include "group/Group.h"
#include "mroutelib/Mroute.h"
#include "mroutelib/PortVlan.h"
#include "mroutelib/Review.h"
#include "mroutelib/Small.h"
#include "mroutelib/StaticNat.h"
