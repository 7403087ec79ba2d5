#pragma once
// The name of a Linux network namespace, at most NAME_MAX (255) bytes since
// it is a file name under /var/run/netns. Empty is the default namespace.
#include "platform/BoundedName.h"

#include <type_traits>

namespace Pakto {

class NamespaceName : public BoundedName<255, NamespaceName> {
 public:
   static constexpr const char* gantTypeName = "Pakto::NamespaceName";
   static constexpr const char* rangeErrorText =
       "NamespaceName::bytes > NamespaceName::maxLength not allowed";

   using BoundedName::BoundedName;

   bool isDefault() const noexcept { return empty(); }
};

static_assert(sizeof(NamespaceName) == 256);
static_assert(std::is_trivially_copyable_v<NamespaceName>);
static_assert(std::has_unique_object_representations_v<NamespaceName>);

} // namespace Pakto
