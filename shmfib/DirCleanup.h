#pragma once
// Removing what a producer that died left behind: its directory table and
// the route tables it announced. Readers then forget it as if it had
// withdrawn. A producer that still runs is refused (its tables' writer lock
// is held), so this never pulls tables from under a live producer.
#include "platform/AddressFamily.h"
#include "pond/Table.h"

#include <string>
#include <vector>

namespace Pond::Multicast::Fib {

// The mount paths removed, the directory last. Throws Gant::TableError when
// the producer is alive ("... already has a live writer").
std::vector<std::string> removeDeadProducer(Pakto::AddressFamily af, const std::string& app,
                                            const Pond::Options& options = {});

} // namespace Pond::Multicast::Fib
