#pragma once
// The trace facility. A source file holds one handle and traces through it:
//
//    static Flashlog::Handle& trace = Flashlog::handle("MrouteLib");
//    FLASHLOG(trace, 9, __PRETTY_FUNCTION__);
//    FLASHLOG(trace, 8, "route ", key, " oif ", oif);
//
// The arguments after the level are streamed one after the other with
// operator<< into one line. When the level is not enabled the cost is one
// predictable branch on a plain load: no argument is evaluated and no text
// is built. An enabled line goes to the in-memory ring (Ring.h), to the sink
// if one is set, and to every live Capture (Capture.h).
//
// The library runs on one thread; tracing from two threads at once is safe
// but may garble ring lines. Set the sink and the levels before other threads
// trace.
#include "flashlog/Handle.h"
#include "flashlog/Ring.h"

#include <functional>
#include <sstream>
#include <string_view>

#define FLASHLOG(handle, level, ...)                                           \
   do {                                                                        \
      if (__builtin_expect((handle).enabled(level), 0))                        \
         ::Flashlog::trace((handle), (level), __VA_ARGS__);                    \
   } while (0)

namespace Flashlog {

// Delivers one traced line to the ring, the sink and the captures.
void emit(const Handle& handle, int level, std::string_view text);

// The enabled path, out of line so that a trace site stays one branch.
template <class... Args>
[[gnu::cold, gnu::noinline]] void trace(const Handle& handle, int level, const Args&... args) {
   std::ostringstream text;
   (text << ... << args);
   emit(handle, level, text.view());
}

// Receives each enabled line as "<handle> <level> <text>", without newline.
using Sink = std::function<void(std::string_view line)>;
// Replaces the sink; an empty Sink turns it off.
void setSink(Sink sink);
// A sink writing each line and a newline to `fd` in one write (so lines of
// several processes sharing a file do not mix). The descriptor stays the
// caller's.
Sink fdSink(int fd);

} // namespace Flashlog
