#include "tools/Signals.h"

#include "sys/Calls.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <iostream>

namespace Tool {

namespace {

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

volatile std::sig_atomic_t received = 0;
int pipeFds[2] = {-1, -1};

// Records the signal and wakes the loop; a handler makes its calls directly,
// not through the system-call seam it may have interrupted.
void onStopSignal(int sig) {
   const int savedErrno = errno;
   if (received == 0) received = sig;
   const char byte = 0;
   (void)!::write(pipeFds[1], &byte, 1);
   errno = savedErrno;
}

// With the default action back, the parent sees the signal as the cause.
[[noreturn]] void endBy(int sig) {
   std::signal(sig, SIG_DFL);
   std::raise(sig);
   ::_exit(128 + sig);
}

} // namespace

void installSignalHandlers() {
   std::signal(SIGPIPE, SIG_IGN);
   Sys::check(Sys::calls().pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK), "pipe2");
   for (int sig : kStopSignals) {
      struct sigaction action{};
      if (::sigaction(sig, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) continue;
      action = {};
      action.sa_handler = onStopSignal;
      sigemptyset(&action.sa_mask);
      action.sa_flags = 0; // no SA_RESTART: a write blocked on a full pipe must give up
      ::sigaction(sig, &action, nullptr);
   }
}

void defaultSignalHandlers() {
   for (int sig : kStopSignals) {
      struct sigaction action{};
      if (::sigaction(sig, nullptr, &action) == 0 && action.sa_handler == onStopSignal) std::signal(sig, SIG_DFL);
   }
}

int receivedSignal() noexcept { return received; }
int signalFd() noexcept { return pipeFds[0]; }

bool stopping(const std::ostream& out) noexcept { return received != 0 || !out; }

void checkStop(std::ostream& out) {
   out.flush();
   if (stopping(out)) throw Stopped{};
}

int finish(int status, std::ostream& out) {
   // After a signal, output still buffered is dropped: flushing it could
   // block on a reader that has stopped reading.
   if (received) endBy(received);
   const bool written = static_cast<bool>(out.flush());
   if (received) endBy(received);
   if (written) return status;
   struct stat st{};
   if (Sys::calls().fstat(STDOUT_FILENO, &st).ok() && (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode)))
      endBy(SIGPIPE);
   std::cerr << "mcastfib: cannot write the output\n";
   return 1;
}

} // namespace Tool
