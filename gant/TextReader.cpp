#include "gant/TextReader.h"

namespace Gant {

void TextReader::fail(std::string_view what) const {
   std::string msg = "parse error at offset " + std::to_string(pos_) + ": expected ";
   msg += what;
   constexpr std::size_t kContext = 40;
   msg += " near '";
   msg += text_.substr(pos_, kContext);
   msg += "'";
   throw ParseError(msg);
}

void TextReader::expect(std::string_view lit) {
   if (!consume(lit)) fail("\"" + std::string(lit) + "\"");
}

bool TextReader::consume(std::string_view lit) {
   if (text_.substr(pos_, lit.size()) != lit) return false;
   pos_ += lit.size();
   return true;
}

std::string_view TextReader::atom() {
   std::size_t start = pos_;
   int depth = 0;
   bool inQuote = false;
   for (; pos_ < text_.size(); ++pos_) {
      char c = text_[pos_];
      if (inQuote) {
         if (c == '\\') ++pos_;
         else if (c == '\'') inQuote = false;
         continue;
      }
      if (c == '\'') inQuote = true;
      else if (c == '(' || c == '{' || c == '[') ++depth;
      else if (c == ')' || c == '}' || c == ']' || c == ',') {
         if (depth == 0) break;
         if (c != ',') --depth;
      }
   }
   if (pos_ > text_.size()) pos_ = text_.size();
   return text_.substr(start, pos_ - start);
}

std::string TextReader::quoted() {
   if (!consume("'")) fail("a quoted string");
   std::string out;
   while (pos_ < text_.size()) {
      char c = text_[pos_++];
      if (c == '\'') return out;
      if (c == '\\') {
         if (pos_ >= text_.size()) break;
         c = text_[pos_++];
      }
      out += c;
   }
   fail("a closing quote");
}

void TextReader::expectEnd() {
   if (!atEnd()) fail("end of text");
}

void quote(std::string& out, std::string_view s) {
   out += '\'';
   for (char c : s) {
      if (c == '\'' || c == '\\') out += '\\';
      out += c;
   }
   out += '\'';
}

} // namespace Gant
