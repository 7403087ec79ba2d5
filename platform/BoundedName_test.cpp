// Names of bounded length. VrfName stands for the shared template in the
// value contract; NamespaceName adds only its own limit and default.
#include "platform/NamespaceName.h"
#include "platform/VrfName.h"

#include "gant/testlib/ValueContract.h"

#include "gant/testlib/Thrown.h"

#include <gtest/gtest.h>

#include <sstream>

namespace Gant::Test {

using L3::VrfName;

template <>
struct ValueSamples<VrfName> : Samples<VrfName> {
   // Lexicographic: a shorter prefix first, then by byte.
   static std::vector<VrfName> distinct() {
      return {VrfName(), "A", "a", "a b", "ab", "default", "it's", std::string(100, 'z')};
   }
   static std::vector<std::pair<VrfName, std::string>> texts() {
      return {{VrfName::defaultVrf(), "'default'"}, {VrfName(), "''"}, {"it's", R"('it\'s')"},
              {R"(back\slash)", R"('back\\slash')"}};
   }
   static std::vector<std::string> badTexts() {
      return {"default", "'default", "'" + std::string(101, 'x') + "'", "'a' ", "'a','b'"};
   }
   static std::vector<std::pair<std::string, std::string>> badLogs() {
      std::string padded(100, '\0');
      return {{bytes({101}) + padded, "VrfName::bytes > VrfName::maxLength not allowed"},
              {bytes({255}), "VrfName::bytes > VrfName::maxLength not allowed"},
              {bytes({1, 'a', 'b'}) + std::string(98, '\0'),
               "attribute log: L3::VrfName bytes beyond its length not zero"},
              {bytes({1, 'a'}), "attribute log truncated at offset 1"}};
   }
};

INSTANTIATE_TYPED_TEST_SUITE_P(VrfName, ValueContract, ::testing::Types<VrfName>);

} // namespace Gant::Test

namespace {

using L3::VrfName;

TEST(VrfName, HundredBytesFitAndOneMoreIsRefusedWithItsText) {
   EXPECT_EQ(VrfName(std::string(100, 'v')).size(), 100u);
   EXPECT_EQ(Gant::Test::thrown<Gant::RangeError>([&] { (void)VrfName(std::string(101, 'v').c_str()); }),
             "VrfName::bytes > VrfName::maxLength not allowed");
}

TEST(VrfName, ConvertsFromStringsAndComparesWithThem) {
   VrfName v = "red";
   EXPECT_EQ(v, VrfName(std::string("red")));
   EXPECT_TRUE(v == "red");
   EXPECT_TRUE(VrfName() < "a");
   EXPECT_EQ(v.str(), "red");
   EXPECT_EQ(L3::defaultVrfName().view(), "default");
   std::ostringstream os;
   os << v;
   EXPECT_EQ(os.str(), "'red'");
}

TEST(VrfName, EmbeddedNulIsABytePastTheShorterName) {
   VrfName nul(std::string("a\0", 2));
   EXPECT_NE(nul, VrfName("a")) << "the unused tail is zero, the length must still tell them apart";
   EXPECT_LT(VrfName("a"), nul);
   EXPECT_EQ(Gant::fromLog<VrfName>(Gant::toLog(nul)), nul);
}

TEST(VrfName, HashIsTheStringHash) {
   // A name and an equal Gant::String land in the same bucket of any table.
   for (const char* s : {"", "default", "it's"})
      EXPECT_EQ(Gant::hashOf(VrfName(s)), Gant::hashOf(std::string(s))) << s;
   EXPECT_EQ(Gant::toLog(VrfName("ab")).size(), 101u) << "fixed width";
}

TEST(NamespaceName, EmptyIsTheDefaultNamespaceAndNameMaxIsTheLimit) {
   using Pakto::NamespaceName;
   EXPECT_TRUE(NamespaceName().isDefault());
   EXPECT_FALSE(NamespaceName("ns-mgmt").isDefault());
   EXPECT_EQ(NamespaceName(std::string(255, 'n')).size(), 255u);
   EXPECT_EQ(Gant::Test::thrown<Gant::RangeError>([&] { (void)NamespaceName(std::string(256, 'n')); }),
             "NamespaceName::bytes > NamespaceName::maxLength not allowed");
   EXPECT_EQ(Gant::toLog(NamespaceName("ns")).size(), 256u);
}

} // namespace
