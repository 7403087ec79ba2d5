#pragma once
// Waking readers in other processes. The writer listens on a Unix
// seqpacket socket beside the segment; each reader connects and is handed,
// over the connection, the read end of a pipe of its own. A reader that has
// caught up sends the change count it has seen ("ack") and is then armed;
// the writer writes one wake byte to an armed reader's pipe at the next
// change and disarms it. So a burst of changes costs each sleeping reader one
// wake-up, and a reader never writes to shared memory. A pipe write is the
// cheapest wake-up there is; the reader holds only the read end, so it
// cannot make the writer's non-blocking write block, and the writer keeps a
// read end too, so a reader gone cannot bring it SIGPIPE. The connection
// also tells a reader that its writer died: the kernel closes it.
//
// The socket is open to anyone allowed to connect, so the writer bounds
// what connections can cost it: a cap on readers (those beyond it are told
// so and closed), and a pause in accepting when descriptors run out rather
// than a spin on a listening socket that stays readable. It also keeps its
// path: a socket removed or replaced under it is bound afresh.
#include "loop/EventLoop.h"
#include "sys/Fd.h"

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <list>
#include <string>

namespace Pond {

// The socket beside a segment: short enough for sun_path whatever the name.
std::string wakeSocketPath(const std::string& dir, const std::string& segmentName);

// Removes the socket a writer that died left at `path`, when it is one of
// our uid; the caller holds the table's writer lock, so no writer serves it.
void removeLeftWakeSocket(const std::string& path);

// Sends a descriptor over a connected Unix socket: one tag byte carrying
// it as SCM_RIGHTS. False when the send failed.
bool sendDescriptor(int socket, int fd);

class WakeServer {
 public:
   // How often the writer checks that its socket is still at the path.
   static constexpr double kPathCheckSeconds = 1.0;
   // How long accepting rests after running out of descriptors or memory.
   static constexpr double kAcceptPauseSeconds = 0.1;
   // What a reader beyond the cap is told before its connection is closed.
   static constexpr const char* kRefusal = "refused: too many readers";

   // changes() reads the segment's change count, to compare with acks. At
   // most maxReaders connections are kept; any more are refused.
   //
   // Whatever is at `path` is replaced only when it is a socket of our own
   // uid (one an earlier writer left; that no writer lives is the caller's
   // lock's job) or when we may remove it anyway (root). Otherwise throws
   // Gant::TableError naming the path and its owner.
   WakeServer(const std::string& path, mode_t mode, Loop::EventLoop& loop, std::function<uint32_t()> changes,
              std::size_t maxReaders = 256);
   ~WakeServer();
   WakeServer(const WakeServer&) = delete;
   WakeServer& operator=(const WakeServer&) = delete;

   // After each change: wakes every armed reader. One branch when none is.
   void changed() {
      if (armed_) wakeArmed();
   }
   std::size_t readers() const noexcept { return conns_.size(); }
   // How many readers wait for a wake-up: writers test it without a call.
   const uint32_t* armedCount() const noexcept { return &armed_; }

 private:
   struct Conn {
      Sys::Fd fd;
      Sys::Fd wakePipe; // the write end; the socket carries wakes without one
      // The read end, kept too: a pipe with a reader never raises SIGPIPE,
      // so a reader that dies or closes its end cannot kill the writer.
      Sys::Fd wakePipeHeld;
      Loop::Watch watch;
      bool armed = false;
   };
   struct Listener {
      Sys::Fd fd;
      dev_t dev = 0;
      ino_t ino = 0;
   };
   Listener listenAtPath();
   void clearPath(uid_t ours);
   void watchListener();
   void accept();
   void pauseAccepting(int err);
   void adopt(Sys::Fd fd);
   void checkPath();
   void onReader(std::list<Conn>::iterator it);
   void wakeArmed();
   void wake(Conn& c);

   std::string path_;
   mode_t mode_;
   Loop::EventLoop& loop_;
   std::function<uint32_t()> changes_;
   std::size_t maxReaders_;
   Listener listen_;
   Loop::Watch listenWatch_;
   Loop::Timer acceptPause_;
   bool acceptFailing_ = false; // traced once per run of failed accepts
   Loop::Timer pathCheck_;
   bool rebindFailing_ = false;
   std::list<Conn> conns_;
   uint32_t armed_ = 0;
};

class WakeClient {
 public:
   // onGone: the writer died (the connection ended). onRefused: the writer
   // would not take us (it has all the readers it allows); the connection
   // is closed without onGone, and connect() may be tried again later.
   WakeClient(std::string path, Loop::EventLoop& loop, std::function<void()> onWake, std::function<void()> onGone,
              std::function<void(const std::string&)> onRefused = {});
   WakeClient(const WakeClient&) = delete;
   WakeClient& operator=(const WakeClient&) = delete;

   // Connects when not connected; false when no writer listens.
   bool connect();
   bool connected() const noexcept { return fd_.valid(); }
   // Whether the writer at the other end has closed the connection (it
   // died), asked now rather than when the loop next reads it: false
   // while connected to a live writer.
   bool peerClosed() const;
   // Closes the connection without onGone, e.g. when its peer is not
   // trusted.
   void disconnect() noexcept;
   // Who listens at the other end: anyone able to create the socket first
   // could. False when not connected or when the kernel will not say.
   bool peerCredentials(uid_t& uid, pid_t& pid) const;
   // "I have seen every change up to count; wake me at the next."
   void ack(uint32_t count);
   // Wake messages received, each one run of onWake.
   uint64_t wakeups() const noexcept { return wakeups_; }

 private:
   void onReadable();
   void onPipe();
   void adoptPipe(Sys::Fd fd);
   void woken();
   void drop();

   std::string path_;
   Loop::EventLoop& loop_;
   std::function<void()> onWake_, onGone_;
   std::function<void(const std::string&)> onRefused_;
   Sys::Fd fd_;
   Loop::Watch watch_;
   Sys::Fd pipe_;
   Loop::Watch pipeWatch_;
   uint64_t wakeups_ = 0;
};

} // namespace Pond
