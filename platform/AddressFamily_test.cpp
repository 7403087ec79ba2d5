#include "platform/AddressFamily.h"

#include "gant/testlib/ValueContract.h"

#include <gtest/gtest.h>

namespace Gant::Test {

using Pakto::AddressFamily;

template <>
struct ValueSamples<AddressFamily> : Samples<AddressFamily> {
   static std::vector<AddressFamily> distinct() {
      return {AddressFamily::ipunknown, AddressFamily::ipv4, AddressFamily::ipv6};
   }
   static std::vector<std::pair<AddressFamily, std::string>> texts() {
      return {{AddressFamily::ipv4, "'ipv4'"}, {AddressFamily::ipunknown, "'ipunknown'"}};
   }
   static std::vector<std::string> badTexts() { return {"ipv4", "'ipv5'", "''", "'IPv4'", "1"}; }
   static std::vector<std::pair<std::string, std::string>> badLogs() {
      return {{bytes({0, 0, 0, 3}), "Pakto::AddressFamily value 3 not allowed"},
              {bytes({1, 0, 0, 1}), "Pakto::AddressFamily value 16777217 not allowed"}};
   }
};

INSTANTIATE_TYPED_TEST_SUITE_P(AddressFamily, ValueContract, ::testing::Types<AddressFamily>);

} // namespace Gant::Test

namespace {

using Pakto::AddressFamily;

TEST(AddressFamily, NumbersAndFunctionsAreFixed) {
   static_assert(Pakto::ipv4() == AddressFamily::ipv4 && Pakto::ipv6() == AddressFamily::ipv6);
   static_assert(static_cast<int>(Pakto::ipunknown()) == 0 && static_cast<int>(Pakto::ipv4()) == 1 &&
                 static_cast<int>(Pakto::ipv6()) == 2);
   static_assert(sizeof(AddressFamily) == 1);
}

} // namespace
