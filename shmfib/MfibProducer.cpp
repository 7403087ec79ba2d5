#include "shmfib/MfibProducer.h"

#include "gant/Error.h"

namespace Pond::Multicast::Fib {

MfibProducer::MfibProducer(Pakto::AddressFamily af, const Gant::String& app, Loop::EventLoop& loop,
                           const Pond::Options& options)
    : af_(af), options_(options), dir_(Hive::dirFactory("fib")),
      writer_(app, dir_, mfibDirFactory(Gant::Name(app)), &loop, options) {
   writer_.handleInitialized();
   publisher_.emplace(af, app, writer_.mfibDir(), &loop, options);
}

MfibProducer::~MfibProducer() = default;

MfibProducer::Vrf& MfibProducer::vrf(const L3::VrfName& name) {
   Vrf& v = vrfs_[name];
   if (v.table) return v;
   v.table = writer_.doAddPond(name, Status::mountPath(af_, name, app()));
   // A restarted producer finds the interfaces its table already names.
   v.table->oifIndexIntfForEach([&](const OifIndexIntf& r) { v.oifIndex.emplace(r.intf(), r.key()); });
   return v;
}

Status& MfibProducer::table(const L3::VrfName& name) { return *vrf(name).table; }

OifIndex MfibProducer::oifIndex(const L3::VrfName& name, const Pakto::IntfId& intf) {
   Vrf& v = vrf(name);
   if (auto it = v.oifIndex.find(intf); it != v.oifIndex.end()) return it->second;
   std::vector<bool> used(OifIndex::null().value());
   for (const auto& [i, index] : v.oifIndex) used[index.value()] = true;
   uint16_t free = 0;
   while (free < used.size() && used[free]) ++free;
   if (free == used.size()) throw Gant::RangeError("no OIF index left in " + v.table->tableWriter()->segmentName());
   const OifIndexIntf row(OifIndex(free), intf, 1);
   v.table->oifIndexIntfIs(row);
   v.oifIndex.emplace(intf, row.key());
   return row.key();
}

void MfibProducer::routeDel(const L3::VrfName& name, const IpGenRouteKey& key) {
   if (auto it = vrfs_.find(name); it != vrfs_.end()) it->second.table->routeDel(key);
}

void MfibProducer::vrfDel(const L3::VrfName& name) {
   auto it = vrfs_.find(name);
   if (it == vrfs_.end()) return;
   writer_.doDelPond(name, Status::mountPath(af_, name, app()));
   vrfs_.erase(it);
}

void MfibProducer::withdraw() {
   while (!vrfs_.empty()) vrfDel(L3::VrfName(vrfs_.begin()->first));
   if (publisher_) publisher_->withdraw();
   publisher_.reset();
}

} // namespace Pond::Multicast::Fib
