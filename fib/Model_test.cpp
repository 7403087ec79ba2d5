// What the model promises across its generated types: enumerations found by
// their full names, and the refusal and enumeration texts the system quotes.
#include "fib/Config.h"
#include "fib/GroupKey.h"
#include "fib/HardwareStatus.h"
#include "fib/Status.h"
#include "gant/testlib/ValueContract.h"
#include "shmfib/Route.h"

#include <gtest/gtest.h>

namespace {

TEST(Model, EnumerationsAreRegisteredByFullName) {
   struct Case {
      const char* type;
      const char* member;
      uint32_t value;
   };
   for (const Case& c : {Case{"Routing::Multicast::Fib::RouteKeyType", "ethGroup", 3},
                         Case{"Multicast::Group::McastGroupKind", "mcastGroupKindTapAgg", 19},
                         Case{"Routing::Multicast::Fib::CounterMode", "byteMode", 2},
                         Case{"Routing::Multicast::Fib::Config::MultipathControl", "multipathNone", 1}}) {
      SCOPED_TRACE(c.type);
      const Gant::TypeInfo* t = Gant::TypeRegistry::find(c.type);
      ASSERT_NE(t, nullptr);
      ASSERT_NE(t->enumInfo, nullptr);
      EXPECT_STREQ(t->enumInfo->typeName, c.type);
      uint32_t v = 0;
      EXPECT_TRUE(t->enumInfo->valueOf(c.member, v));
      EXPECT_EQ(v, c.value);
      EXPECT_EQ(t->factory, nullptr);
   }
}

template <class T>
std::string refusal(std::initializer_list<int> log) {
   try {
      (void)Gant::fromLog<T>(Gant::Test::bytes(log));
   } catch (const Gant::RangeError& e) {
      return e.what();
   }
   return "accepted";
}

TEST(Model, QuotedTexts) {
   using namespace Routing::Multicast::Fib;
   using Pond::Multicast::Fib::Route;
   using Kind = Multicast::Group::McastGroupKind;
   const std::pair<std::string, std::string> cases[] = {
       {refusal<CounterMode>({0, 0, 0, 3}), "Routing::Multicast::Fib::CounterMode value 3 not allowed"},
       {refusal<Config::MultipathControl>({0, 0, 0, 3}),
        "Routing::Multicast::Fib::Config::MultipathControl value 3 not allowed"},
       {refusal<RouteKeyType>({0, 0, 0, 8}), "Routing::Multicast::Fib::RouteKeyType value 8 not allowed"},
       {refusal<Kind>({0, 0, 0, 0}), "Multicast::Group::McastGroupKind value 0 not allowed"},
       {refusal<Hardware::RouteStatus::HwFlags>({0, 0, 0, 4}), "HwFlags::value > 0x3 not allowed"},
       {refusal<Intf::IntfFlags>({0, 0, 0, 0x40}), "IntfFlags::value > 0x3f not allowed"},
       {refusal<Route::RouteFlags>({0, 0, 0, 0x40}), "RouteFlags::value > 0x3f not allowed"},
       {refusal<Route::IifFlags>({0, 0, 0, 2}), "IifFlags::value > 0x1 not allowed"},
       {refusal<Pond::Multicast::Fib::IntfFlags>({0, 0, 0, 0x40}), "IntfFlags::value > 0x3f not allowed"},
       {Gant::toText(CounterMode::None), "'None'"},
       {Gant::toText(Config::MultipathControl::noMultipathDeterministic), "'noMultipathDeterministic'"},
       {Gant::toText(RouteKeyType::evpnMultihomeFloodset), "'evpnMultihomeFloodset'"},
       {Gant::toText(Kind::mcastGroupKindTapAgg), "'mcastGroupKindTapAgg'"},
   };
   for (const auto& [actual, expected] : cases) EXPECT_EQ(actual, expected);
}

} // namespace
