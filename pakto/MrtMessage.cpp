#include "pakto/MrtMessage.h"

namespace Pakto {

const char* stringValue(MrtMessageType t) noexcept {
   switch (t) {
   case MrtMessageType::NoCache: return "NoCache";
   case MrtMessageType::WrongVif: return "WrongVif";
   case MrtMessageType::WholePkt: return "WholePkt";
   }
   return "Unknown";
}

} // namespace Pakto
