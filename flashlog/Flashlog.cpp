#include "flashlog/Flashlog.h"

#include "flashlog/Capture.h"
#include "gant/Assert.h"
#include "sys/Calls.h"

#include <string>

namespace Flashlog {

namespace {
Sink& sink() {
   static Sink* current = new Sink; // outlives static destruction, like the handles
   return *current;
}
} // namespace

void emit(const Handle& handle, int level, std::string_view text) {
   GANT_ASSERT(level >= minLevel && level <= maxLevel);
   ringAppend(handle, level, text);
   if (const Sink& s = sink()) {
      std::string line;
      line.reserve(handle.name().size() + text.size() + 3);
      line.append(handle.name()).append(1, ' ');
      line.append(1, static_cast<char>('0' + level)).append(1, ' ');
      line.append(text);
      s(line);
   }
   Capture::offer(handle, level, text);
}

void setSink(Sink s) {
   sink() = std::move(s);
}

Sink fdSink(int fd) {
   return [fd](std::string_view line) {
      std::string out;
      out.reserve(line.size() + 1);
      out.append(line).append(1, '\n');
      // Tracing never fails its caller: a short or failed write loses the line.
      Sys::discard(Sys::calls().write(fd, out.data(), out.size()));
   };
}

} // namespace Flashlog
