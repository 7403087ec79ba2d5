#pragma once
// A value of any attribute type, for reflection by attribute name. Numbers
// convert between arithmetic types when they fit; anything else must be read
// as the type it holds.
#include "gant/Codec.h"
#include "gant/Error.h"

#include <any>
#include <concepts>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>

namespace Gant {

// Scalars and flags: one number with a checked constructor.
template <class T>
concept NumberLike = requires { typename T::ValueType; } &&
                     std::is_constructible_v<T, typename T::ValueType>;

class GenericValue {
 public:
   GenericValue() = default;

   template <class T>
      requires(!std::same_as<std::decay_t<T>, GenericValue>)
   GenericValue(T v) : text_(&textOf<std::decay_t<T>>) {
      using D = std::decay_t<T>;
      if constexpr (std::is_same_v<D, const char*>) {
         value_ = std::string(v);
         text_ = &textOf<std::string>;
      } else {
         if constexpr (std::is_arithmetic_v<D>) setNumber(v);
         value_ = std::move(v);
      }
   }

   bool empty() const noexcept { return !value_.has_value(); }
   std::string text() const {
      std::string out;
      if (text_) text_(out, value_);
      return out;
   }

   // The held value as T: exact type, or an arithmetic conversion that keeps
   // the value (RangeError otherwise), or UnsupportedOperation.
   template <class T>
   T as() const {
      if (const T* p = std::any_cast<T>(&value_)) return *p;
      if constexpr (std::is_arithmetic_v<T>) {
         if (kind_ != Kind::none) return convert<T>();
      } else if constexpr (NumberLike<T>) {
         // Scalars and flags accept a plain number, through their range check.
         if (kind_ != Kind::none) return T(convert<typename T::ValueType>());
      }
      throw UnsupportedOperation(std::string("generic value of type ") + value_.type().name() +
                                 " cannot be read as " + typeid(T).name());
   }

 private:
   enum class Kind : uint8_t { none, sint, uint, real };

   template <class T>
   static void textOf(std::string& out, const std::any& a) {
      Codec<T>::text(out, *std::any_cast<T>(&a));
   }

   template <class T>
   void setNumber(T v) {
      if constexpr (std::is_floating_point_v<T>) {
         kind_ = Kind::real;
         real_ = static_cast<double>(v);
      } else if constexpr (std::is_signed_v<T>) {
         kind_ = Kind::sint;
         sint_ = v;
      } else {
         kind_ = Kind::uint;
         uint_ = v;
      }
   }

   template <class T>
   T convert() const {
      auto refuse = [this]() -> T {
         throw RangeError("value " + text() + " out of range for the attribute");
      };
      if constexpr (std::is_same_v<T, bool>) {
         if (kind_ == Kind::uint && uint_ <= 1) return uint_ == 1;
         if (kind_ == Kind::sint && (sint_ == 0 || sint_ == 1)) return sint_ == 1;
         return refuse();
      } else if constexpr (std::is_floating_point_v<T>) {
         if (kind_ == Kind::real) return static_cast<T>(real_);
         if (kind_ == Kind::uint) return static_cast<T>(uint_);
         return static_cast<T>(sint_);
      } else {
         if (kind_ == Kind::real) {
            if (real_ != static_cast<double>(static_cast<long long>(real_))) return refuse();
            return convertInt<T>(static_cast<long long>(real_), refuse);
         }
         if (kind_ == Kind::uint) {
            if (uint_ > static_cast<unsigned long long>(std::numeric_limits<T>::max())) return refuse();
            return static_cast<T>(uint_);
         }
         return convertInt<T>(sint_, refuse);
      }
   }

   template <class T, class F>
   static T convertInt(long long v, F refuse) {
      if (v < 0) {
         if constexpr (std::is_unsigned_v<T>) return refuse();
         else if (v < static_cast<long long>(std::numeric_limits<T>::min())) return refuse();
      } else if (static_cast<unsigned long long>(v) >
                 static_cast<unsigned long long>(std::numeric_limits<T>::max())) {
         return refuse();
      }
      return static_cast<T>(v);
   }

   std::any value_;
   void (*text_)(std::string&, const std::any&) = nullptr;
   Kind kind_ = Kind::none;
   union {
      long long sint_;
      unsigned long long uint_;
      double real_ = 0;
   };
};

} // namespace Gant
