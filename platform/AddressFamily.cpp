#include "platform/AddressFamily.h"

namespace Pakto {

const Gant::EnumInfo& gantEnumInfo(AddressFamily) {
   static const Gant::EnumInfo info{"Pakto::AddressFamily",
                                    {{"ipunknown", 0}, {"ipv4", 1}, {"ipv6", 2}}};
   return info;
}

AddressFamily AddressFamilyInstance(std::string_view name) {
   uint32_t v;
   if (!gantEnumInfo(AddressFamily{}).valueOf(name, v))
      throw Gant::ParseError("no member '" + std::string(name) + "' in Pakto::AddressFamily");
   return static_cast<AddressFamily>(v);
}

void throwBadAddressFamily(unsigned v) {
   throw Gant::RangeError("Pakto::AddressFamily value " + std::to_string(v) + " not allowed");
}

} // namespace Pakto
