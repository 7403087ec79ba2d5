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

// Sends a descriptor over a connected Unix socket: one tag byte carrying
// it as SCM_RIGHTS. False when the send failed.
bool sendDescriptor(int socket, int fd);

class WakeServer {
 public:
   // changes() reads the segment's change count, to compare with acks.
   WakeServer(const std::string& path, mode_t mode, Loop::EventLoop& loop, std::function<uint32_t()> changes);
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
   void accept();
   void onReader(std::list<Conn>::iterator it);
   void wakeArmed();
   void wake(Conn& c);

   std::string path_;
   Loop::EventLoop& loop_;
   std::function<uint32_t()> changes_;
   Sys::Fd listen_;
   Loop::Watch listenWatch_;
   std::list<Conn> conns_;
   uint32_t armed_ = 0;
};

class WakeClient {
 public:
   WakeClient(std::string path, Loop::EventLoop& loop, std::function<void()> onWake, std::function<void()> onGone);
   WakeClient(const WakeClient&) = delete;
   WakeClient& operator=(const WakeClient&) = delete;

   // Connects when not connected; false when no writer listens.
   bool connect();
   bool connected() const noexcept { return fd_.valid(); }
   // "I have seen every change up to count; wake me at the next."
   void ack(uint32_t count);
   // Wake messages received, each one run of onWake.
   uint64_t wakeups() const noexcept { return wakeups_; }

 private:
   void onReadable();
   void onPipe();
   void adoptPipe(int fd);
   void woken();
   void drop();

   std::string path_;
   Loop::EventLoop& loop_;
   std::function<void()> onWake_, onGone_;
   Sys::Fd fd_;
   Loop::Watch watch_;
   Sys::Fd pipe_;
   Loop::Watch pipeWatch_;
   uint64_t wakeups_ = 0;
};

} // namespace Pond
