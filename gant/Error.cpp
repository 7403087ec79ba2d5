#include "gant/Error.h"
#include "gant/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Gant {

ErrnoError::ErrnoError(const std::string& call, int errorNo)
    : std::runtime_error(call), call_(call), errorNo_(errorNo) {}

void assertionFailed(const char* condition, const char* file, int line) {
   std::fprintf(stderr, "Assertion failed: %s (%s:%d)\n", condition, file, line);
   std::fflush(stderr);
   std::abort();
}

} // namespace Gant

namespace Gant {
void throwRangeError(const char* text) { throw RangeError(text); }
} // namespace Gant
