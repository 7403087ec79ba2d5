#pragma once
// What f throws as E: a copy to look into, or its text ("" when f returns),
// for one-line checks of a refusal. Any other exception fails the test.
#include <optional>
#include <string>

namespace Gant::Test {

template <class E, class F>
std::optional<E> caught(F&& f) {
   try {
      f();
   } catch (const E& e) {
      return e;
   }
   return std::nullopt;
}

// The text is taken in the handler: a copy of a base class would lose it.
template <class E, class F>
std::string thrown(F&& f) {
   try {
      f();
   } catch (const E& e) {
      return e.what();
   }
   return "";
}

} // namespace Gant::Test
