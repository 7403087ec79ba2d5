#include "platform/NamespaceName.h"

#include "gant/testlib/ValueContract.h"

#include "gant/testlib/Thrown.h"

#include <gtest/gtest.h>

namespace Gant::Test {

using Pakto::NamespaceName;

template <>
struct ValueSamples<NamespaceName> : Samples<NamespaceName> {
   static std::vector<NamespaceName> distinct() {
      return {NamespaceName(), "Mgmt", "ns-mgmt", "ns-red", std::string(255, '~')};
   }
   static std::vector<std::pair<NamespaceName, std::string>> texts() {
      return {{NamespaceName(), "''"}, {"ns-red", "'ns-red'"}};
   }
   static std::vector<std::string> badTexts() { return {"ns-red", "'" + std::string(256, 'n') + "'"}; }
   static std::vector<std::pair<std::string, std::string>> badLogs() {
      return {{bytes({0, 'x'}) + std::string(254, '\0'),
               "attribute log: Pakto::NamespaceName bytes beyond its length not zero"},
              {bytes({3, 'a', 'b', 'c'}), "attribute log truncated at offset 1"}};
   }
};

INSTANTIATE_TYPED_TEST_SUITE_P(NamespaceName, ValueContract, ::testing::Types<NamespaceName>);

} // namespace Gant::Test

namespace {

using Pakto::NamespaceName;

TEST(NamespaceName, EmptyIsTheDefaultNamespaceAndNameMaxIsTheLimit) {
   EXPECT_TRUE(NamespaceName().isDefault());
   EXPECT_FALSE(NamespaceName("ns-mgmt").isDefault());
   EXPECT_EQ(NamespaceName(std::string(255, 'n')).size(), 255u);
   EXPECT_EQ(Gant::Test::thrown<Gant::RangeError>([&] { (void)NamespaceName(std::string(256, 'n')); }),
             "NamespaceName::bytes > NamespaceName::maxLength not allowed");
}

} // namespace
