// The refusal and enumeration texts of the model's generated types that the
// system quotes.
#include "fib/Config.h"
#include "fib/GroupKey.h"
#include "fib/HardwareStatus.h"
#include "fib/Status.h"
#include "gant/testlib/ValueContract.h"
#include "shmfib/Route.h"

#include <gtest/gtest.h>

namespace {

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
