// The tool stopped early, by a reader of its output that went away or by a
// signal, leaves nothing behind: no segment, no wake socket or lock, and no
// reader process. Runs the real tool binary.
#include "pond/Shape.h"
#include "pond/Wake.h"
#include "shmfib/DirTable.h"
#include "shmfib/RouteTable.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

const std::string tool = MCASTFIB_TOOL;

// A process with its stdout, stderr and descriptor 3 (for a script to
// report on) on pipes.
struct Process {
   pid_t pid = -1;
   int fds[3] = {-1, -1, -1};
   explicit Process(std::vector<const char*> argv) {
      int pipes[3][2];
      for (auto& p : pipes) EXPECT_EQ(::pipe2(p, O_CLOEXEC), 0);
      if ((pid = ::fork()) == 0) {
         for (int fd = 1; fd <= 3; ++fd) ::dup2(pipes[fd - 1][1], fd);
         argv.push_back(nullptr);
         ::execv(argv[0], const_cast<char**>(argv.data()));
         ::_exit(127);
      }
      for (int i = 0; i < 3; ++i) ::close(pipes[i][1]), fds[i] = pipes[i][0];
   }
   // Reads descriptor `fd` (1, 2 or 3) up to a newline, or to the end when untilEnd.
   std::string read(int fd, bool untilEnd = true) {
      std::string text;
      for (char c; ::read(fds[fd - 1], &c, 1) == 1 && (text += c, untilEnd || c != '\n');) {
      }
      return text;
   }
   int reap() {
      for (int fd : fds) ::close(fd);
      int status = 0;
      ::waitpid(pid, &status, 0);
      return status;
   }
};

// The children of `parent`; without one, the processes running this build's
// tool.
std::vector<pid_t> processes(pid_t parent) {
   std::vector<pid_t> found;
   for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      const std::string name = entry.path().filename();
      if (name.find_first_not_of("0123456789") != std::string::npos) continue;
      std::ifstream stat(entry.path() / "stat"), cmdline(entry.path() / "cmdline");
      std::string line, argv0;
      std::getline(stat, line);
      std::getline(cmdline, argv0, '\0');
      const auto close = line.rfind(')');
      if (close == std::string::npos) continue;
      const pid_t ppid = std::atoi(line.c_str() + close + 4); // past ") S "
      if (parent ? ppid == parent : argv0 == tool) found.push_back(std::stoi(name));
   }
   return found;
}

// Every table the demo and the routes command make, with its wake socket
// and lock.
void expectNothingLeftBy(pid_t pid) {
   using Pakto::AddressFamily;
   using namespace Pond::Multicast::Fib;
   std::vector<std::string> paths = {Status::mountPath(AddressFamily::ipv4, L3::VrfName("default"), "demo")};
   for (const char* app : {"static", "pim", "igmp"})
      for (AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
         paths.push_back(MfibDirTable::mountPath(af, app));
         for (const char* vrf : {"default", "red"}) paths.push_back(Status::mountPath(af, L3::VrfName(vrf), app));
      }
   for (const std::string& path : paths) {
      const std::string segment = Pond::segmentName("mcastfib-demo-" + std::to_string(pid), path);
      const std::string wake = Pond::wakeSocketPath("/dev/shm", segment);
      const std::string lock = wake.substr(0, wake.size() - 4) + "lock";
      for (const std::string& file : {"/dev/shm" + segment, wake, lock})
         EXPECT_FALSE(std::filesystem::exists(file)) << file << " left by " << pid;
   }
   EXPECT_EQ(processes(0), std::vector<pid_t>{}) << "a process of the tool lives on";
}

TEST(ToolCleanup, AClosedOutputEndsItQuietly) {
   // The tool runs in the background of the pipeline so the script can
   // report its pid and exit status.
   for (const char* reader : {"head -3", "true"}) {
      const std::string script =
          std::string(R"({ "$0" demo & echo $! >&3; wait $!; echo $? >&3; } | )") + reader;
      Process run({"/bin/sh", "-c", script.c_str(), tool.c_str()});
      const std::string shown = run.read(1), errors = run.read(2);
      const pid_t pid = std::stoi(run.read(3, false));
      const std::string status = run.read(3);
      EXPECT_TRUE(WIFEXITED(run.reap()));
      if (reader == std::string("head -3")) { EXPECT_EQ(std::count(shown.begin(), shown.end(), '\n'), 3); }
      EXPECT_EQ(errors, "") << reader;
      EXPECT_TRUE(status == "0\n" || status == "141\n") << reader << ": " << status;
      expectNothingLeftBy(pid);
   }
}

TEST(ToolCleanup, ASignalMidRunEndsItAsTheSignalWould) {
   for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
      // Sent once the table exists and the reader runs; a run that ends
      // before the reader is seen is tried again.
      bool caught = false;
      for (int attempt = 0; attempt < 20 && !caught; ++attempt) {
         Process run({tool.c_str(), "routes"});
         bool readerSeen = false;
         if (run.read(1, false).starts_with("writer: table"))
            while (!(readerSeen = !processes(run.pid).empty()) && ::waitpid(run.pid, nullptr, WNOHANG) == 0) {
            }
         if (readerSeen) ::kill(run.pid, sig);
         run.read(1);
         EXPECT_EQ(run.read(2), "");
         const int status = run.reap();
         caught = readerSeen && WIFSIGNALED(status) && WTERMSIG(status) == sig;
         expectNothingLeftBy(run.pid);
      }
      EXPECT_TRUE(caught) << "signal " << sig << " never reached the tool while its reader ran";
   }
}

} // namespace
