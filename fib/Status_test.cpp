#include "fib/Status.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

using namespace Routing::Multicast::Fib;
using Flags = Intf::IntfFlags;

TEST(FibIntfFlags, ShortForm) {
   // Letters for forward, accept, notify and noRpf only; none set is "None".
   for (auto [value, text] : std::vector<std::pair<uint32_t, std::string>>{
            {0x30, "Flags: "}, {0, "Flags: None"}, {0x0f, "Flags: FANR"}, {0x05, "Flags: FN"}, {0x28, "Flags: R"}}) {
      Flags f(value);
      std::ostringstream os;
      os << &f;
      EXPECT_EQ(os.str(), text) << value;
   }
}

} // namespace
