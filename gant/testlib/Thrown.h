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

template <class E, class F>
std::string thrown(F&& f) {
   const std::optional<E> e = caught<E>(f);
   return e ? e->what() : "";
}

} // namespace Gant::Test
