#pragma once
// One contract for every value type: equality, hash, ordering, text form and
// attribute-log round trips, and refusal of bad input. A type joins with its
// own ValueSamples<T>, derived from Samples<T> (distinct(): pairwise unequal,
// ascending if ordered; texts, badTexts, badLogs: log -> what()), and an
// instance of the suite, as EthAddr_test.cpp does.
#include "gant/Codec.h"

#include <gtest/gtest.h>

#include <compare>
#include <string>
#include <utility>
#include <vector>

namespace Gant::Test {

template <class T>
struct ValueSamples;

template <class T>
struct Samples {
   static std::vector<std::pair<T, std::string>> texts() { return {}; }
   static std::vector<std::string> badTexts() { return {}; }
   static std::vector<std::pair<std::string, std::string>> badLogs() { return {}; }
};

template <class T>
class ValueContract : public ::testing::Test {};
TYPED_TEST_SUITE_P(ValueContract);

TYPED_TEST_P(ValueContract, EqualityAndHash) {
   using T = TypeParam;
   auto v = ValueSamples<T>::distinct();
   ASSERT_GE(v.size(), 2u) << "a contract needs at least two samples";
   for (std::size_t i = 0; i < v.size(); ++i) {
      T copy = v[i];
      EXPECT_TRUE(copy == v[i]) << Gant::toText(v[i]);
      EXPECT_EQ(Gant::hashOf(copy), Gant::hashOf(v[i]));
      for (std::size_t j = 0; j < v.size(); ++j)
         if (i != j) {
            EXPECT_FALSE(v[i] == v[j]) << Gant::toText(v[i]) << " vs " << Gant::toText(v[j]);
         }
   }
   // A hash that ignores attributes shows up as collisions between samples.
   std::size_t collisions = 0;
   for (std::size_t i = 0; i < v.size(); ++i)
      for (std::size_t j = i + 1; j < v.size(); ++j)
         collisions += Gant::hashOf(v[i]) == Gant::hashOf(v[j]);
   EXPECT_LT(collisions, v.size()) << "hash does not tell the samples apart";
}

TYPED_TEST_P(ValueContract, Ordering) {
   using T = TypeParam;
   if constexpr (requires(const T& a, const T& b) { a < b; }) {
      auto v = ValueSamples<T>::distinct();
      for (std::size_t i = 0; i < v.size(); ++i)
         for (std::size_t j = 0; j < v.size(); ++j) {
            EXPECT_EQ(v[i] < v[j], i < j) << Gant::toText(v[i]) << " < " << Gant::toText(v[j]);
         }
   } else {
      GTEST_SKIP() << "unordered type";
   }
}

TYPED_TEST_P(ValueContract, TextForms) {
   using T = TypeParam;
   for (const auto& [value, text] : ValueSamples<T>::texts()) {
      EXPECT_EQ(Gant::toText(value), text);
      EXPECT_TRUE(Gant::fromText<T>(text) == value) << text;
   }
   for (const T& value : ValueSamples<T>::distinct()) {
      std::string text = Gant::toText(value);
      EXPECT_TRUE(Gant::fromText<T>(text) == value) << text;
   }
}

TYPED_TEST_P(ValueContract, AttributeLogRoundTrip) {
   using T = TypeParam;
   for (const T& value : ValueSamples<T>::distinct()) {
      std::string log = Gant::toLog(value);
      EXPECT_TRUE(Gant::fromLog<T>(log) == value) << Gant::toText(value);
      if (!log.empty()) {
         EXPECT_THROW(Gant::fromLog<T>(log.substr(0, log.size() - 1)), Gant::ParseError)
             << "truncated log of " << Gant::toText(value);
      }
   }
}

TYPED_TEST_P(ValueContract, BadInputRefused) {
   using T = TypeParam;
   for (const std::string& text : ValueSamples<T>::badTexts()) {
      bool refused = false;
      try {
         (void)Gant::fromText<T>(text);
      } catch (const Gant::ParseError&) {
         refused = true;
      } catch (const Gant::RangeError&) {
         refused = true;
      }
      EXPECT_TRUE(refused) << "accepted bad text: " << text;
   }
   for (const auto& [log, what] : ValueSamples<T>::badLogs()) {
      try {
         (void)Gant::fromLog<T>(log);
         ADD_FAILURE() << "accepted bad log, expected: " << what;
      } catch (const Gant::RangeError& e) {
         EXPECT_EQ(std::string(e.what()), what);
      } catch (const Gant::ParseError& e) {
         EXPECT_EQ(std::string(e.what()), what);
      }
   }
}

REGISTER_TYPED_TEST_SUITE_P(ValueContract, EqualityAndHash, Ordering, TextForms,
                            AttributeLogRoundTrip, BadInputRefused);

// Builds an attribute log from big-endian byte values, for badLogs().
inline std::string bytes(std::initializer_list<int> b) {
   std::string s;
   for (int x : b) s += static_cast<char>(x);
   return s;
}

} // namespace Gant::Test
