// Generated value types, scalars, flags and enumerations join the one value
// contract; what follows the contract covers only what is peculiar to a kind.
#include "gant/testlib/Sample.h"
#include "gant/testlib/ValueContract.h"

#include <gtest/gtest.h>

namespace Gant::Test {

using namespace Gant::Sample;

template <>
struct ValueSamples<Color> : Samples<Color> {
   static std::vector<Color> distinct() { return {Color::red, Color::green, Color::blue}; }
   static std::vector<std::pair<Color, std::string>> texts() { return {{Color::blue, "'blue'"}}; }
   static std::vector<std::string> badTexts() { return {"blue", "'purple'", "'blue", "7"}; }
   static std::vector<std::pair<std::string, std::string>> badLogs() {
      return {{bytes({0, 0, 0, 2}), "Gant::Sample::Color value 2 not allowed"}};
   }
};

template <>
struct ValueSamples<Small> : Samples<Small> {
   static std::vector<Small> distinct() { return {1, 2, 4093, 4094}; }
   static std::vector<std::pair<Small, std::string>> texts() { return {{4094, "4094"}}; }
   static std::vector<std::string> badTexts() { return {"0", "4095", "-1", "", "12a", "99999999999999999999"}; }
   static std::vector<std::pair<std::string, std::string>> badLogs() {
      return {{bytes({0, 0}), "Small::value < 1 or > 4094 not allowed"},
              {bytes({0x0f, 0xff}), "Small::value < 1 or > 4094 not allowed"}};
   }
};

template <>
struct ValueSamples<Bits> : Samples<Bits> {
   static std::vector<Bits> distinct() { return {Bits(0), Bits(1), Bits(2), Bits(7)}; }
   static std::vector<std::pair<Bits, std::string>> texts() {
      return {{Bits(5), "Value('Gant::Sample::Bits', ** {'alpha': True, 'beta': False, 'gamma': True})"}};
   }
   static std::vector<std::string> badTexts() {
      return {"Value('Gant::Sample::Bits', ** {'alpha': True, 'beta': False})",
              "Value('Gant::Sample::Bits', ** {'beta': True, 'alpha': False, 'gamma': True})",
              "Value('Gant::Sample::Bits', ** {'alpha': 1, 'beta': False, 'gamma': True})"};
   }
   static std::vector<std::pair<std::string, std::string>> badLogs() {
      return {{bytes({0, 0, 0, 8}), "Bits::value > 0x7 not allowed"}};
   }
};

template <>
struct ValueSamples<Pair> : Samples<Pair> {
   static std::vector<Pair> distinct() { return {Pair(0, ""), Pair(0, "b"), Pair(1, "a"), Pair(2, "it's")}; }
   static std::vector<std::pair<Pair, std::string>> texts() {
      return {{Pair(2, "it's"), R"(Value('Gant::Sample::Pair', ** {'a': 2, 'b': 'it\'s', 'c': 3}))"}};
   }
   static std::vector<std::string> badTexts() {
      return {"Value('Gant::Sample::Pair', ** {'a': 2, 'b': 'x', 'c': 4})", // a constant differs
              "Value('Gant::Sample::Pair', ** {'a': 2, 'b': 'x', 'c': 3}) trailing",
              "Value('Gant::Sample::Pai', ** {'a': 2, 'b': 'x', 'c': 3})", "Value('"};
   }
   static std::vector<std::pair<std::string, std::string>> badLogs() {
      return {{bytes({0, 0, 0, 1, 0, 0, 0, 9, 'a'}), "attribute log truncated at offset 8"}};
   }
};

template <>
struct ValueSamples<Rich> : Samples<Rich> {
   static Rich make(uint16_t small, uint32_t bits, Color c, double ratio, int64_t when, const char* intf) {
      Rich r;
      r.smallIs(small);
      r.bitsIs(Bits(bits));
      r.colorIs(c);
      r.ratioIs(ratio);
      r.whenIs(when);
      r.intfIs(Pakto::IntfId(intf));
      return r;
   }
   static std::vector<Rich> distinct() {
      return {Rich(), make(2, 0, Color::green, 0.5, 0, ""), make(1, 3, Color::blue, -1.25, -7, "Ethernet2"),
              make(4094, 7, Color::red, 1e300, INT64_MIN, "Port-Channel10")};
   }
   static std::vector<std::pair<Rich, std::string>> texts() {
      return {{make(5, 2, Color::blue, 2, -3, "Ethernet3"),
               "Value('Gant::Sample::Rich', ** {'small': 5, 'bits': Value('Gant::Sample::Bits', ** {'alpha': "
               "False, 'beta': True, 'gamma': False}), 'color': 'blue', 'ratio': 2.0, 'when': -3, 'intf': "
               "Ethernet3})"}};
   }
   static std::vector<std::string> badTexts() {
      std::string good = Gant::toText(make(5, 2, Color::blue, 2, -3, "Ethernet3"));
      std::string outOfRange = good;
      outOfRange.replace(outOfRange.find("'small': 5"), 10, "'small': 0");
      return {outOfRange, good.substr(0, good.size() - 1)};
   }
   static std::vector<std::pair<std::string, std::string>> badLogs() {
      return {{bytes({0x10, 0}), "Small::value < 1 or > 4094 not allowed"},
              {bytes({0, 1, 0, 0, 0, 9}), "Bits::value > 0x7 not allowed"}};
   }
};

using SampleTypes = ::testing::Types<Color, Small, Bits, Pair, Rich>;
INSTANTIATE_TYPED_TEST_SUITE_P(Sample, ValueContract, SampleTypes);

TEST(ValueType, BangIsEqualsDefault) {
   EXPECT_TRUE(!Rich());
   Rich r;
   r.colorIs(Color::red);
   EXPECT_FALSE(!r);
   EXPECT_TRUE(!Bits());
   EXPECT_FALSE(!Bits(1));
}

TEST(ValueType, SettersCheckRangeAndKeepOldValue) {
   Small s = 10;
   EXPECT_THROW(s.valueIs(0), Gant::RangeError);
   EXPECT_EQ(s.value(), 10);
   EXPECT_THROW(Small(70000), Gant::RangeError) << "no silent narrowing";
   Bits b(3);
   EXPECT_THROW(b.valueIs(8), Gant::RangeError);
   EXPECT_EQ(b.value(), 3u);
}

TEST(ValueType, ReflectionReachesEachFlagTheWordAndConstants) {
   Bits b;
   Gant::attrIs(b, "gamma", true);
   EXPECT_EQ(b.value(), 4u);
   EXPECT_EQ(Gant::attr(b, "gamma").as<bool>(), true);
   Gant::attrIs(b, "value", 3u);
   EXPECT_FALSE(b.gamma());
   EXPECT_THROW(Gant::attrIs(b, "value", 9u), Gant::RangeError);
   EXPECT_EQ(b.value(), 3u);
   Pair p;
   EXPECT_EQ(Gant::attr(p, "c").as<uint8_t>(), 3);
   EXPECT_THROW(Gant::attrIs(p, "c", 4), Gant::UnsupportedOperation);
   // A scalar's named bits sit at their own positions; its views only read.
   Reason r;
   Gant::attrIs(r, "high", true);
   r.lowIs(true);
   EXPECT_EQ(r.value(), 0x80000001u);
   EXPECT_EQ(Gant::attr(r, "lowByte").as<uint8_t>(), 1);
   EXPECT_THROW(Gant::attrIs(r, "lowByte", 2), Gant::UnsupportedOperation);
   std::vector<std::string> names;
   for (const auto& a : Reason::gantTypeInfo().attrs) names.push_back(a.name);
   EXPECT_EQ(names, (std::vector<std::string>{"value", "low", "lowByte", "high"})) << "declaration order";
}

TEST(ValueType, EnumServices) {
   EXPECT_EQ(ColorInstance("blue"), Color::blue);
   EXPECT_EQ(ColorInstance(7u), Color::blue);
   EXPECT_THROW(ColorInstance("purple"), Gant::ParseError);
   EXPECT_EQ(stringValue(Color::green), "green");
   EXPECT_EQ(stringValue(ColorInstance(3u)), "3") << "an unnamed value prints as its number";
   std::ostringstream os;
   os << Color::red << ' ' << Root::Mode::off;
   EXPECT_EQ(os.str(), "red off");
   EXPECT_EQ(Root::ModeInstance("on"), Root::Mode::on);
}

// Tools find enumerations by full name, nested ones included.
TEST(ValueType, EnumerationsAreRegisteredByFullName) {
   for (const auto& [type, member, value] :
        {std::tuple{"Gant::Sample::Color", "blue", 7u}, std::tuple{"Gant::Sample::Root::Mode", "on", 1u}}) {
      SCOPED_TRACE(type);
      const Gant::TypeInfo* t = Gant::TypeRegistry::find(type);
      ASSERT_TRUE(t && t->enumInfo);
      EXPECT_STREQ(t->enumInfo->typeName, type);
      uint32_t v = 0;
      EXPECT_TRUE(t->enumInfo->valueOf(member, v));
      EXPECT_EQ(v, value);
      EXPECT_EQ(t->factory, nullptr);
   }
}

TEST(ValueTypeDeathTest, HoldingACollectionHasNoTextConstructor) {
   Bag b;
   b.membersIs(4);
   EXPECT_EQ(Gant::toText(b), "Value('Gant::Sample::Bag', ** {'id': 0, 'members': {4}})");
   EXPECT_DEATH(Gant::fromText<Bag>(Gant::toText(b)), "!\"No String constructor for Bag - has collection\"");
}

} // namespace Gant::Test
