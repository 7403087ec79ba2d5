#pragma once
// The interfaces a route touches, each with its role: iif (accept, or
// accept + noRpf), notify, fastdrop, iifFrr, then the outgoing interfaces
// in ascending OIF index (forward + notify), their indexes translated
// through the table's oifIndexIntf collection, or through a cache the
// caller keeps. A route rewritten under the walk (its version changed)
// ends it.
//
//    for (RouteIntfIteratorConst it(table, key); it.next();) use(it.intfId(), it.intfFlags());
#include "gant/Collection.h"
#include "shmfib/RouteTable.h"

namespace Pond::Multicast::Fib {

class RouteIntfIteratorConst {
 public:
   RouteIntfIteratorConst(const Gant::PtrConst<Status>& table, const Routing::Multicast::Fib::IpGenRouteKey& key);
   virtual ~RouteIntfIteratorConst() = default;

   // Moves to the next interface; false when the walk is over.
   bool next();
   const Pakto::IntfId& intfId() const noexcept { return intfId_; }
   IntfFlags intfFlags() const noexcept { return intfFlags_; }
   // The OIF index of an outgoing interface; null for the named ones.
   OifIndex oifIndex() const noexcept { return oifIndex_; }

 protected:
   // The interface of an OIF index, or false (traced) when it has none.
   virtual bool translate(OifIndex index, Pakto::IntfId& intf) const;

 private:
   bool nextOif();

   Gant::PtrConst<Status> table_;
   Route route_;
   uint32_t version_;
   int named_ = 0; // the next named interface to look at: 0 iif .. 3 iifFrr, 4 the OIFs
   OifIndex oif_ = OifIndex::null();
   bool oifsDone_ = false;
   Pakto::IntfId intfId_;
   IntfFlags intfFlags_;
   OifIndex oifIndex_ = OifIndex::null();
};

// The same walk, OIF indexes translated through the caller's cache.
class CachedMapRouteIntfIteratorConst : public RouteIntfIteratorConst {
 public:
   using Cache = Gant::HashedMap<OifIndex, Pakto::IntfId>;
   CachedMapRouteIntfIteratorConst(const Gant::PtrConst<Status>& table,
                                   const Routing::Multicast::Fib::IpGenRouteKey& key, const Cache& cache)
       : RouteIntfIteratorConst(table, key), cache_(cache) {}

 protected:
   bool translate(OifIndex index, Pakto::IntfId& intf) const override;

 private:
   const Cache& cache_;
};

} // namespace Pond::Multicast::Fib
