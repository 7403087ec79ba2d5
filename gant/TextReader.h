#pragma once
// A cursor over a text form. Every read either consumes what it recognised or
// throws ParseError naming what it expected and where; nothing crashes on
// malformed input.
#include "gant/Error.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace Gant {

class TextReader {
 public:
   explicit TextReader(std::string_view text) : text_(text) {}

   // Consumes lit or throws.
   void expect(std::string_view lit);
   // Consumes lit when it is next; reports whether it was.
   bool consume(std::string_view lit);
   // An unquoted token: everything up to a ',', '}', ')' or ']' that is not
   // nested inside brackets or quotes (may be empty).
   std::string_view atom();
   // A single-quoted string with backslash escapes, as written by quote().
   std::string quoted();
   // Moves on by n characters (clamped to the end).
   void skip(std::size_t n) noexcept { pos_ = std::min(pos_ + n, text_.size()); }
   // Throws unless the whole text has been consumed.
   void expectEnd();

   bool atEnd() const noexcept { return pos_ >= text_.size(); }
   std::size_t offset() const noexcept { return pos_; }
   std::string_view rest() const noexcept { return text_.substr(pos_); }
   [[noreturn]] void fail(std::string_view what) const;

 private:
   std::string_view text_;
   std::size_t pos_ = 0;
};

// Appends s in single quotes, escaping quotes and backslashes.
void quote(std::string& out, std::string_view s);

} // namespace Gant
