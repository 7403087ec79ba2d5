#pragma once
// The name of a VRF, at most 100 bytes; the default VRF is "default".
#include "platform/BoundedName.h"

#include <type_traits>

namespace L3 {

class VrfName : public Pakto::BoundedName<100, VrfName> {
 public:
   static constexpr const char* gantTypeName = "L3::VrfName";
   static constexpr const char* rangeErrorText = "VrfName::bytes > VrfName::maxLength not allowed";

   using BoundedName::BoundedName;

   static VrfName defaultVrf() { return VrfName("default"); }
};

inline VrfName defaultVrfName() { return VrfName::defaultVrf(); }

static_assert(sizeof(VrfName) == 101);
static_assert(std::is_trivially_copyable_v<VrfName>);
static_assert(std::has_unique_object_representations_v<VrfName>);

} // namespace L3
