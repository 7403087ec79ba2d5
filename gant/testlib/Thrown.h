#pragma once
// What f throws as E, or "" when it returns: one line for "refused with
// exactly this text". Any other exception goes on to fail the test.
#include <string>

namespace Gant::Test {

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
