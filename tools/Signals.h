#pragma once
// How the tool stops early and still cleans up. What a command makes (a
// table in shared memory, its wake socket, a reader process) is owned by
// objects whose destructors remove it, so a command that must stop throws
// Stopped and unwinds.
//
// SIGPIPE is ignored: a write to a closed pipe then fails with EPIPE instead
// of killing the tool before it can unwind. SIGINT, SIGTERM and SIGHUP are
// only recorded; they interrupt a blocked write rather than restart it, and
// make signalFd() readable so that an event loop wakes.
#include <iosfwd>

namespace Tool {

// Signals ignored when the tool starts (SIGHUP under nohup) stay ignored.
void installSignalHandlers();
// In a forked child: the default actions back, so the child just dies.
void defaultSignalHandlers();

// The first of SIGINT, SIGTERM and SIGHUP received, or 0.
int receivedSignal() noexcept;
// Readable once one of them has been received.
int signalFd() noexcept;

// Thrown to unwind a command that must stop.
struct Stopped {};

// Whether a signal came or `out` can no longer be written.
bool stopping(const std::ostream& out) noexcept;
// Flushes `out`, then throws Stopped if stopping(out).
void checkStop(std::ostream& out);

// The exit status of the process once its command is over: a received
// signal ends it as that signal would have (after the cleanup); so does
// SIGPIPE, quietly, when the output was a pipe or socket nobody reads any
// more. Another failure to write the output is reported.
int finish(int status, std::ostream& out);

} // namespace Tool
