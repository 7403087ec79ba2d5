#pragma once
// The attribute log: a value's attributes in declaration order, each at a
// fixed width in network byte order. The reader never trusts its input: a
// short log raises ParseError, and each type's reader validates its ranges.
#include "gant/Error.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

namespace Gant {

class LogWriter {
 public:
   template <class U>
   void uint(U v) {
      static_assert(std::is_unsigned_v<U>);
      for (int shift = (sizeof(U) - 1) * 8; shift >= 0; shift -= 8)
         out_ += static_cast<char>((v >> shift) & 0xff);
   }
   void bytes(const void* p, std::size_t n) { out_.append(static_cast<const char*>(p), n); }
   const std::string& data() const noexcept { return out_; }
   std::string take() { return std::move(out_); }

 private:
   std::string out_;
};

class LogReader {
 public:
   explicit LogReader(std::string_view in) : in_(in) {}
   template <class U>
   U uint() {
      static_assert(std::is_unsigned_v<U>);
      need(sizeof(U));
      U v = 0;
      for (std::size_t i = 0; i < sizeof(U); ++i)
         v = static_cast<U>((v << 8) | static_cast<uint8_t>(in_[pos_++]));
      return v;
   }
   void bytes(void* p, std::size_t n) {
      need(n);
      std::memcpy(p, in_.data() + pos_, n);
      pos_ += n;
   }
   bool atEnd() const noexcept { return pos_ == in_.size(); }
   std::size_t offset() const noexcept { return pos_; }

 private:
   void need(std::size_t n) const {
      if (in_.size() - pos_ < n)
         throw ParseError("attribute log truncated at offset " + std::to_string(pos_));
   }
   std::string_view in_;
   std::size_t pos_ = 0;
};

} // namespace Gant
