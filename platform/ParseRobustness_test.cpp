// Every parser and attribute-log reader of the platform value types, fed
// pseudo-random and mutated input: each either yields a value whose text
// reads back to the same value, or refuses with ParseError or RangeError.
// Anything else (another exception, a crash, a sanitizer report) fails.
#include "platform/AddressFamily.h"
#include "platform/EthAddr.h"
#include "platform/IntfId.h"
#include "platform/IpAddr.h"
#include "platform/IpGenAddr.h"
#include "platform/NamespaceName.h"
#include "platform/VrfName.h"

#include "gant/Codec.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using namespace std::string_view_literals;

// Valid texts to start mutating from; the first also sizes the random logs.
template <class T>
std::vector<std::string> seeds() {
   using namespace Pakto;
   if constexpr (std::is_same_v<T, AddressFamily>) return {"'ipv4'", "'ipv6'", "'ipunknown'"};
   else if constexpr (std::is_same_v<T, IpAddr>) return {"10.0.0.1", "255.255.255.255", "0.0.0.0"};
   else if constexpr (std::is_same_v<T, Prefix>) return {"10.0.0.0/8", "239.1.2.3/32", "0.0.0.0/0", "1.2.3.4"};
   else if constexpr (std::is_same_v<T, IpGenAddr>)
      return {"10.0.0.1", "2001:db8::1", "::ffff:192.0.2.1", "ff02::1:ff00:1", "", "::"};
   else if constexpr (std::is_same_v<T, IpGenPrefix>)
      return {"10.0.0.0/8", "ff00::/8", "2001:db8::1/128", "", "::/0", "1.2.3.4"};
   else if constexpr (std::is_same_v<T, IntfId>)
      return {"Ethernet1/2/3", "Ethernet3/1.100", "Port-Channel10", "Vlan100", "Cpu", "Management1/1", ""};
   else if constexpr (std::is_same_v<T, EthAddr>) return {"01:00:5e:01:02:03", "FF:ff:00:11:22:33"};
   else if constexpr (std::is_same_v<T, L3::VrfName>) return {"'default'", "''", R"('it\'s')"};
   else return {"'ns-mgmt'", "''"};
}

// Characters that matter to some parser, plus a few that matter to none.
constexpr std::string_view kAlphabet = "0123456789abcdefABCDEF.:/-'\\,}){[ %xEthernetPortVlanCpu\0\xff"sv;

class Mutator {
 public:
   explicit Mutator(uint32_t seed) : rng_(seed) {}

   std::string randomText() {
      std::string s;
      for (std::size_t n = below(24); n > 0; --n) s += randomChar();
      return s;
   }

   std::string mutate(std::string s) {
      for (std::size_t edits = 1 + below(3); edits > 0; --edits) {
         std::size_t at = s.empty() ? 0 : below(s.size());
         switch (below(5)) {
            case 0: if (!s.empty()) s[at] = randomChar(); break;
            case 1: s.insert(at, 1, randomChar()); break;
            case 2: if (!s.empty()) s.erase(at, 1); break;
            case 3: s = s.substr(0, at); break;
            default: s.insert(at, s.substr(at, below(6))); break;
         }
      }
      return s;
   }

   std::string randomBytes(std::size_t n) {
      std::string s;
      for (std::size_t i = 0; i < n; ++i) s += static_cast<char>(below(256));
      return s;
   }

   // A valid log with one byte changed, one cut off or one appended.
   std::string mutateLog(std::string s) {
      std::size_t at = below(s.size());
      switch (below(3)) {
         case 0: s[at] = static_cast<char>(below(256)); break;
         case 1: s.resize(at); break;
         default: s += static_cast<char>(below(256)); break;
      }
      return s;
   }

   std::size_t below(std::size_t n) { return n == 0 ? 0 : rng_() % n; }

 private:
   char randomChar() { return kAlphabet[below(kAlphabet.size())]; }
   std::mt19937 rng_;
};

template <class T>
class ParseRobustness : public ::testing::Test {
 protected:
   // Counts outcomes so that the test shows it reached both paths. A value
   // parsed from `input` must print and log back to itself; a refusal must be
   // a ParseError or a RangeError.
   template <class Parse>
   void attempt(const std::string& input, Parse parse) {
      std::optional<T> value;
      try {
         value = parse(input);
      } catch (const Gant::ParseError&) {
      } catch (const Gant::RangeError&) {
      }
      if (!value) return void(++refused_);
      ++accepted_;
      // Outside the try: a print that does not read back fails the test.
      const std::string text = Gant::toText(*value);
      EXPECT_TRUE(Gant::fromText<T>(text) == *value) << "input '" << input << "' printed as '" << text << "'";
      EXPECT_EQ(Gant::toText(Gant::fromText<T>(text)), text);
      EXPECT_TRUE(Gant::fromLog<T>(Gant::toLog(*value)) == *value) << text;
   }
   void checkText(const std::string& text) { attempt(text, [](const std::string& s) { return Gant::fromText<T>(s); }); }
   void checkLog(const std::string& log) { attempt(log, [](const std::string& s) { return Gant::fromLog<T>(s); }); }

   int accepted_ = 0;
   int refused_ = 0;
};

using PlatformTypes = ::testing::Types<Pakto::AddressFamily, Pakto::IpAddr, Pakto::Prefix, Pakto::IpGenAddr,
                                       Pakto::IpGenPrefix, Pakto::IntfId, Pakto::EthAddr, L3::VrfName,
                                       Pakto::NamespaceName>;

struct TypeNames {
   template <class T>
   static std::string GetName(int) {
      if constexpr (std::is_enum_v<T>) return "AddressFamily";
      else {
         std::string_view full = T::gantTypeName;
         return std::string(full.substr(full.rfind(':') + 1));
      }
   }
};

TYPED_TEST_SUITE(ParseRobustness, PlatformTypes, TypeNames);

TYPED_TEST(ParseRobustness, ArbitraryTextAndLogsParseBackOrAreRefused) {
   using T = TypeParam;
   Mutator m(20240611);
   std::vector<std::string> seeds = ::seeds<T>();
   for (int i = 0; i < 300; ++i) this->checkText(m.randomText());
   for (int i = 0; i < 600; ++i) this->checkText(m.mutate(seeds[m.below(seeds.size())]));

   std::size_t logSize = Gant::toLog(Gant::fromText<T>(seeds[0])).size();
   for (int i = 0; i < 300; ++i) this->checkLog(m.randomBytes(m.below(2 * logSize + 2)));
   for (int i = 0; i < 300; ++i)
      this->checkLog(m.mutateLog(Gant::toLog(Gant::fromText<T>(seeds[m.below(seeds.size())]))));

   EXPECT_GT(this->accepted_, 0);
   EXPECT_GT(this->refused_, 0);
}

} // namespace
