#pragma once
// The kinds of failure the library reports by exception.
#include <stdexcept>
#include <string>

namespace Gant {

// A value outside its type's range. what() is the type's fixed text, e.g.
// "VlanId::value < 1 or > 4094 not allowed"; the target is left unchanged.
class RangeError : public std::range_error {
 public:
   explicit RangeError(const std::string& text) : std::range_error(text) {}
};

// A failed system call. what() names the call ("socket"); errorNo() keeps errno.
class ErrnoError : public std::runtime_error {
 public:
   ErrnoError(const std::string& call, int errorNo);
   int errorNo() const noexcept { return errorNo_; }
   const std::string& call() const noexcept { return call_; }

 private:
   std::string call_;
   int errorNo_;
};

// Malformed text form or attribute log; nothing is produced.
class ParseError : public std::invalid_argument {
 public:
   explicit ParseError(const std::string& text) : std::invalid_argument(text) {}
};

// An operation a type refuses by design, e.g. writing a constant by reflection.
class UnsupportedOperation : public std::logic_error {
 public:
   explicit UnsupportedOperation(const std::string& text) : std::logic_error(text) {}
};

// A shared table that cannot be used as asked: another live writer holds
// it, its segment or socket path belongs to someone else, a collection is
// full, or the segment holds what no writer writes. what() says which table.
class TableError : public std::runtime_error {
 public:
   explicit TableError(const std::string& text) : std::runtime_error(text) {}
};

} // namespace Gant
