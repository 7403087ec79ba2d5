#pragma once
// Where a shared table is: its mount path, at most 255 bytes, in a fixed
// layout so that a directory of tables can itself be a shared table.
#include "platform/BoundedName.h"

#include <type_traits>

namespace Pond::Multicast::Fib {

class TableUrl : public Pakto::BoundedName<255, TableUrl> {
 public:
   static constexpr const char* gantTypeName = "Pond::Multicast::Fib::TableUrl";
   static constexpr const char* rangeErrorText = "TableUrl::bytes > TableUrl::maxLength not allowed";

   using BoundedName::BoundedName;
};

static_assert(std::is_trivially_copyable_v<TableUrl>);

} // namespace Pond::Multicast::Fib
