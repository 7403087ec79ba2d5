#include "platform/TextScan.h"

#include "gant/Error.h"

namespace Pakto::TextScan {

void fail(std::size_t offset, std::string_view atom, std::string_view what) {
   constexpr std::size_t kContext = 40;
   std::string msg = "parse error at offset " + std::to_string(offset) + ": expected ";
   msg += what;
   msg += " near '";
   msg += atom.substr(0, kContext);
   msg += "'";
   throw Gant::ParseError(msg);
}

} // namespace Pakto::TextScan
