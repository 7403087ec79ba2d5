#include "tools/FailureCommand.h"

#include "tools/Commands.h"

#include "mroutelib/Small.h"

#include <charconv>
#include <iomanip>
#include <ostream>

namespace Tool {

const char* const failureDetails =
    "NUMBER is the failure reason as an agent logged it, decimal or 0x hexadecimal:\n"
    "  mcastfib failure 0x1401    mcastfib failure 5121";

namespace {

uint32_t reasonNumber(const std::string& text) {
   const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
   const char* first = text.data() + (hex ? 2 : 0);
   const char* last = text.data() + text.size();
   uint32_t v = 0;
   const auto [end, ec] = std::from_chars(first, last, v, hex ? 16 : 10);
   if (text.empty() || ec == std::errc::result_out_of_range)
      throw UsageError("bad failure reason '" + text + "': not a 32-bit number");
   if (ec != std::errc() || end != last)
      throw UsageError("bad failure reason '" + text + "': expected a decimal or 0x hexadecimal number");
   return v;
}

} // namespace

int failureCommand(std::span<const std::string> args, std::ostream& out) {
   expectArgs(args, 1, 1);
   const MrouteLib::MrouteFailureReason reason(reasonNumber(args[0]));
   out << "value      0x" << std::hex << std::setw(8) << std::setfill('0') << reason.value() << std::dec
       << std::setfill(' ') << " (" << reason.value() << ")\n";
   // The words as agents write them, each behind a blank.
   out << "pretty     '" << reason.pretty() << "'\n";
   out << "hwFailure  " << (reason.hwFailure() ? "yes" : "no") << "\n";
   out << "explain    '" << reason.logExplain() << "'\n";
   // Every named bit that is set, the silent ones (bit 11) included; what no
   // name covers is shown as a mask.
   const auto& info = MrouteLib::MrouteFailureReason::gantTypeInfo();
   auto bitSet = [&](const MrouteLib::MrouteFailureReason& r, const Gant::AttrInfo& a) {
      return a.kind == Gant::AttrKind::value && std::string_view(a.typeName) == "bool" &&
             Gant::attrGet(info, &r, a.name).as<bool>();
   };
   out << "bits      ";
   for (const auto& a : info.attrs)
      if (bitSet(reason, a)) out << " " << a.name;
   uint32_t named = 0;
   for (unsigned i = 0; i < 32; ++i)
      for (const auto& a : info.attrs)
         if (bitSet(MrouteLib::MrouteFailureReason(1u << i), a)) named |= 1u << i;
   out << "\n";
   if (const uint32_t rest = reason.value() & ~named)
      out << "unnamed    0x" << std::hex << std::setw(8) << std::setfill('0') << rest << std::dec << std::setfill(' ')
          << "\n";
   return 0;
}

} // namespace Tool
