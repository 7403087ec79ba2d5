#include "pond/Wake.h"

#include "gant/Error.h"
#include "gant/Hash.h"
#include "sys/Calls.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>

#include <cstdio>
#include <cstring>

namespace Pond {

namespace {

// A message of one buffer and room for control data, for sendmsg/recvmsg.
msghdr oneBufferMessage(iovec& iov, void* control, std::size_t controlBytes) {
   msghdr msg{};
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   msg.msg_control = control;
   msg.msg_controllen = controlBytes;
   return msg;
}

// Creates a reader's wake pipe and hands its read end over the reader's
// connection. Both ends stay with the writer; when either step fails, both
// are empty (wakes then go over the connection itself).
struct WakePipe {
   Sys::Fd readEnd, writeEnd;
};
WakePipe handPipe(int conn) {
   int fds[2];
   if (!Sys::calls().pipe2(fds, O_NONBLOCK | O_CLOEXEC).ok()) return {};
   WakePipe pipe{Sys::Fd(fds[0]), Sys::Fd(fds[1])};
   if (!sendDescriptor(conn, pipe.readEnd.get())) return {};
   return pipe;
}

sockaddr_un address(const std::string& path) {
   sockaddr_un a{};
   a.sun_family = AF_UNIX;
   std::memcpy(a.sun_path, path.data(), std::min(path.size(), sizeof a.sun_path - 1));
   return a;
}

} // namespace

bool sendDescriptor(int socket, int fd) {
   char tag = 'p';
   iovec iov{&tag, 1};
   alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(int))] = {};
   msghdr msg = oneBufferMessage(iov, control, sizeof control);
   cmsghdr* c = CMSG_FIRSTHDR(&msg);
   c->cmsg_level = SOL_SOCKET;
   c->cmsg_type = SCM_RIGHTS;
   c->cmsg_len = CMSG_LEN(sizeof(int));
   std::memcpy(CMSG_DATA(c), &fd, sizeof fd);
   return Sys::calls().sendmsg(socket, &msg, MSG_DONTWAIT | MSG_NOSIGNAL).ok();
}

std::string wakeSocketPath(const std::string& dir, const std::string& segmentName) {
   // FNV-1a of the segment name: sun_path holds 108 bytes, names may not fit.
   uint64_t h = 1469598103934665603ull;
   for (unsigned char c : segmentName) h = (h ^ c) * 1099511628211ull;
   char buf[32];
   std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(h));
   return dir + "/mcastfib-" + buf + ".wake";
}

// ---- server -----------------------------------------------------------------

WakeServer::WakeServer(const std::string& path, mode_t mode, Loop::EventLoop& loop,
                       std::function<uint32_t()> changes)
    : path_(path), loop_(loop), changes_(std::move(changes)) {
   Sys::Calls& sys = Sys::calls();
   listen_.reset(static_cast<int>(
       Sys::check(sys.socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket")));
   sys.unlink(path_.c_str()); // a socket left by a writer that died
   sockaddr_un a = address(path_);
   Sys::check(sys.bind(listen_.get(), reinterpret_cast<sockaddr*>(&a), sizeof a), "bind");
   // Readers need write permission on the socket to connect.
   ::chmod(path_.c_str(), mode | ((mode & 0444) >> 1));
   Sys::check(sys.listen(listen_.get(), 64), "listen");
   listenWatch_ = loop_.watchReadable(listen_.get(), [this] { accept(); });
}

WakeServer::~WakeServer() {
   listenWatch_.reset();
   conns_.clear();
   Sys::calls().unlink(path_.c_str());
}

void WakeServer::accept() {
   for (;;) {
      Sys::Result r = Sys::calls().accept4(listen_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (!r.ok()) return;
      conns_.emplace_back();
      auto it = std::prev(conns_.end());
      it->fd.reset(static_cast<int>(r.value));
      WakePipe pipe = handPipe(it->fd.get());
      it->wakePipe = std::move(pipe.writeEnd);
      it->wakePipeHeld = std::move(pipe.readEnd);
      it->watch = loop_.watchReadable(it->fd.get(), [this, it] { onReader(it); });
   }
}

void WakeServer::onReader(std::list<Conn>::iterator it) {
   Conn& c = *it;
   for (;;) {
      uint32_t seen = 0;
      Sys::Result r = Sys::calls().recvfrom(c.fd.get(), &seen, sizeof seen, MSG_DONTWAIT, nullptr, nullptr);
      if (r.ok() && r.value == sizeof seen) {
         if (seen != changes_()) {
            wake(c); // changed since the reader looked: no sleep
         } else if (!c.armed) {
            c.armed = true;
            ++armed_;
         }
         continue;
      }
      if (r.ok() && r.value > 0) continue; // not an ack: ignored
      if (!r.ok() && (r.err == EAGAIN || r.err == EWOULDBLOCK)) return;
      // The reader went away.
      if (c.armed) --armed_;
      conns_.erase(it);
      return;
   }
}

void WakeServer::wake(Conn& c) {
   if (c.armed) {
      c.armed = false;
      --armed_;
   }
   // A full pipe or socket already holds a wake the reader has not read.
   char byte = 1;
   if (c.wakePipe) Sys::calls().write(c.wakePipe.get(), &byte, 1);
   else Sys::calls().sendto(c.fd.get(), &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL, nullptr, 0);
}

void WakeServer::wakeArmed() {
   for (Conn& c : conns_)
      if (c.armed) wake(c);
}

// ---- client -------------------------------------------------------------------

WakeClient::WakeClient(std::string path, Loop::EventLoop& loop, std::function<void()> onWake,
                       std::function<void()> onGone)
    : path_(std::move(path)), loop_(loop), onWake_(std::move(onWake)), onGone_(std::move(onGone)) {}

bool WakeClient::connect() {
   if (fd_.valid()) return true;
   Sys::Calls& sys = Sys::calls();
   Sys::Fd fd(static_cast<int>(
       Sys::check(sys.socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket")));
   sockaddr_un a = address(path_);
   if (!sys.connect(fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a).ok()) return false;
   fd_ = std::move(fd);
   watch_ = loop_.watchReadable(fd_.get(), [this] { onReadable(); });
   return true;
}

void WakeClient::ack(uint32_t count) {
   if (!fd_.valid()) return;
   Sys::Result r = Sys::calls().sendto(fd_.get(), &count, sizeof count, MSG_DONTWAIT | MSG_NOSIGNAL, nullptr, 0);
   if (!r.ok() && r.err != EAGAIN) drop();
}

// The connection carries the wake pipe (a message with a descriptor), or
// wakes themselves when the writer could not make one.
void WakeClient::onReadable() {
   char buf[64];
   iovec iov{buf, sizeof buf};
   alignas(cmsghdr) unsigned char control[CMSG_SPACE(4 * sizeof(int))];
   msghdr msg = oneBufferMessage(iov, control, sizeof control);
   Sys::Result r = Sys::calls().recvmsg(fd_.get(), &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
   if (!r.ok() && (r.err == EAGAIN || r.err == EWOULDBLOCK)) return;
   if (!r.ok() || r.value == 0) return drop(); // end of stream: the writer is gone
   bool handed = false;
   for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
      if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
      const std::size_t n = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
      for (std::size_t i = 0; i < n; ++i) {
         int fd;
         std::memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
         adoptPipe(fd);
      }
      handed = true;
   }
   if (!handed) woken();
}

// Keeps the first pipe read end the writer hands over; closes anything else.
void WakeClient::adoptPipe(int fd) {
   Sys::Fd received(fd);
   struct stat st{};
   if (pipe_ || !Sys::calls().fstat(fd, &st).ok() || !S_ISFIFO(st.st_mode)) return;
   if (!Sys::calls().fcntl(fd, F_SETFL, O_NONBLOCK).ok()) return;
   pipe_ = std::move(received);
   pipeWatch_ = loop_.watchReadable(pipe_.get(), [this] { onPipe(); });
}

// One read takes every wake byte waiting: one wake-up per sleep, however
// many the writer sent.
void WakeClient::onPipe() {
   char buf[64];
   Sys::Result r = Sys::calls().read(pipe_.get(), buf, sizeof buf);
   if (r.ok() && r.value > 0) return woken();
   if (!r.ok() && (r.err == EAGAIN || r.err == EWOULDBLOCK)) return;
   drop(); // the writer closed its end: it is gone
}

void WakeClient::woken() {
   ++wakeups_;
   onWake_();
}

void WakeClient::drop() {
   pipeWatch_.reset();
   pipe_.reset();
   watch_.reset();
   fd_.reset();
   onGone_();
}

} // namespace Pond
