#pragma once
// A flags value as the names of its bits and back, through the type's own
// description, so that every flags type reads and prints alike.
#include "gant/TypeInfo.h"

#include <stdexcept>
#include <string>
#include <string_view>

namespace Tool {

// "valid,toCpu"; "-" when no bit is set.
template <class F>
std::string flagWords(const F& flags) {
   std::string out;
   for (const Gant::AttrInfo& a : F::gantTypeInfo().attrs) {
      if (std::string_view(a.name) == "value" || !a.get(&flags).template as<bool>()) continue;
      out += (out.empty() ? "" : ",") + std::string(a.name);
   }
   return out.empty() ? "-" : out;
}

// The flags named by "valid,toCpu"; throws std::invalid_argument naming a
// word that is no flag of F.
template <class F>
F flagsNamed(std::string_view words) {
   F flags;
   while (!words.empty()) {
      const std::string word(words.substr(0, words.find(',')));
      words.remove_prefix(std::min(words.size(), word.size() + 1));
      bool known = false;
      for (const Gant::AttrInfo& a : F::gantTypeInfo().attrs)
         if (word == a.name && word != "value") known = true;
      if (!known) throw std::invalid_argument("no flag '" + word + "'");
      Gant::attrIs(flags, word, Gant::GenericValue(true));
   }
   return flags;
}

} // namespace Tool
