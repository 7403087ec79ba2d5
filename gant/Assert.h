#pragma once
// Invariant assertions. A broken invariant stops the process after printing
// the condition's own text, so that a death test can match it exactly.
// Never compiled out: the product relies on them in release builds.

namespace Gant {
[[noreturn]] void assertionFailed(const char* condition, const char* file, int line);
}

#define GANT_ASSERT(cond)                                                      \
   ((cond) ? static_cast<void>(0)                                              \
           : ::Gant::assertionFailed(#cond, __FILE__, __LINE__))

// For the rare invariant whose fixed text is not the C++ condition itself.
#define GANT_ASSERT_TEXT(cond, text)                                           \
   ((cond) ? static_cast<void>(0)                                              \
           : ::Gant::assertionFailed(text, __FILE__, __LINE__))
