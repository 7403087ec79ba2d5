#include "pond/Wake.h"

#include "gant/Error.h"
#include "flashlog/Flashlog.h"
#include "gant/Hash.h"
#include "sys/Calls.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace Pond {

namespace {

Flashlog::Handle& trace = Flashlog::handle("Pond");

// Connections accepted, or messages read from one reader, per turn of the
// loop: a peer that keeps a socket readable cannot hold the writer's loop.
// The watches are level-triggered, so the rest comes at the next turn.
constexpr int kBatch = 64;

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
                       std::function<uint32_t()> changes, std::size_t maxReaders)
    : path_(path), mode_(mode), loop_(loop), changes_(std::move(changes)), maxReaders_(maxReaders) {
   listen_ = listenAtPath();
   watchListener();
   pathCheck_ = loop_.timerAfter(kPathCheckSeconds, [this] {
      checkPath();
      pathCheck_.rearm(kPathCheckSeconds);
   });
}

void removeLeftWakeSocket(const std::string& path) {
   Sys::Calls& sys = Sys::calls();
   struct stat st{};
   const Sys::Result uid = sys.geteuid();
   if (sys.lstat(path.c_str(), &st).ok() && S_ISSOCK(st.st_mode) && uid.ok() && st.st_uid == uid_t(uid.value))
      Sys::discard(sys.unlink(path.c_str()));
}

WakeServer::~WakeServer() {
   listenWatch_.reset();
   conns_.clear();
   // Only our own socket: the path may name a successor's by now.
   struct stat st{};
   if (Sys::calls().lstat(path_.c_str(), &st).ok() && st.st_dev == listen_.dev && st.st_ino == listen_.ino)
      Sys::discard(Sys::calls().unlink(path_.c_str()));
}

WakeServer::Listener WakeServer::listenAtPath() {
   Sys::Calls& sys = Sys::calls();
   Listener l;
   l.fd.reset(static_cast<int>(
       Sys::check(sys.socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket")));
   // A new socket's inode carries the uid our socket files get: the owner
   // of a socket an earlier writer of ours left.
   struct stat own{};
   Sys::check(sys.fstat(l.fd.get(), &own), "fstat");
   clearPath(own.st_uid);
   sockaddr_un a = address(path_);
   // bind creates the file, and fails if anything has taken the path since.
   Sys::check(sys.bind(l.fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a), "bind");
   try {
      // Readers need write permission on the socket to connect.
      Sys::check(sys.chmod(path_.c_str(), mode_ | ((mode_ & 0444) >> 1)), "chmod");
      struct stat st{};
      Sys::check(sys.lstat(path_.c_str(), &st), "lstat");
      l.dev = st.st_dev;
      l.ino = st.st_ino;
      Sys::check(sys.listen(l.fd.get(), 64), "listen");
   } catch (...) {
      Sys::discard(sys.unlink(path_.c_str()));
      throw;
   }
   return l;
}

void WakeServer::clearPath(uid_t ours) {
   Sys::Calls& sys = Sys::calls();
   struct stat st{};
   Sys::Result r = sys.lstat(path_.c_str(), &st);
   if (!r.ok() && r.err == ENOENT) return;
   if (!r.ok()) throw Gant::ErrnoError("lstat " + path_, r.err);
   const bool stale = S_ISSOCK(st.st_mode) && st.st_uid == ours;
   r = sys.unlink(path_.c_str());
   if (!r.ok() && r.err != ENOENT) {
      throw Gant::TableError("wake socket path " + path_ + " is taken by uid " + std::to_string(st.st_uid) +
                               (stale ? "" : S_ISSOCK(st.st_mode) ? " (a socket not ours)" : " (not a socket)") +
                               " and cannot be removed: " + std::strerror(r.err));
   }
   if (!stale)
      FLASHLOG(trace, 1, "removed ", S_ISSOCK(st.st_mode) ? "a socket" : "a file", " of uid ", st.st_uid,
               " at the wake socket path ", path_);
}

void WakeServer::watchListener() {
   listenWatch_ = loop_.watchReadable(listen_.fd.get(), [this] { accept(); });
}

void WakeServer::accept() {
   for (int n = 0; n < kBatch; ++n) {
      Sys::Result r = Sys::calls().accept4(listen_.fd.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (!r.ok() && (r.err == EMFILE || r.err == ENFILE || r.err == ENOBUFS || r.err == ENOMEM))
         return pauseAccepting(r.err);
      if (acceptFailing_) {
         acceptFailing_ = false;
         FLASHLOG(trace, 1, "accepting readers at ", path_, " again");
      }
      if (!r.ok()) return;
      Sys::Fd fd(static_cast<int>(r.value));
      if (conns_.size() < maxReaders_) {
         adopt(std::move(fd));
      } else {
         // Told, so that it does not wait for wakes that never come.
         FLASHLOG(trace, 5, "refusing a reader at ", path_, ": ", conns_.size(), " already");
         Sys::discard(
             Sys::calls().sendto(fd.get(), kRefusal, std::strlen(kRefusal), MSG_DONTWAIT | MSG_NOSIGNAL, nullptr, 0));
      }
   }
}

// The listening socket stays readable while the connection waits, so
// watching it would spin: look again a little later.
void WakeServer::pauseAccepting(int err) {
   if (!acceptFailing_) {
      acceptFailing_ = true;
      FLASHLOG(trace, 1, "cannot accept readers at ", path_, ": ", std::strerror(err), "; pausing");
   }
   listenWatch_.reset();
   if (!acceptPause_) acceptPause_ = loop_.timerAfter(kAcceptPauseSeconds, [this] { watchListener(); });
   else acceptPause_.rearm(kAcceptPauseSeconds);
}

void WakeServer::adopt(Sys::Fd fd) {
   conns_.emplace_back();
   auto it = std::prev(conns_.end());
   it->fd = std::move(fd);
   WakePipe pipe = handPipe(it->fd.get());
   it->wakePipe = std::move(pipe.writeEnd);
   it->wakePipeHeld = std::move(pipe.readEnd);
   it->watch = loop_.watchReadable(it->fd.get(), [this, it] { onReader(it); });
}

// A socket removed (or replaced) under us would leave new readers unable to
// connect for as long as we live.
void WakeServer::checkPath() {
   struct stat st{};
   if (Sys::calls().lstat(path_.c_str(), &st).ok() && st.st_dev == listen_.dev && st.st_ino == listen_.ino) return;
   Listener fresh;
   try {
      fresh = listenAtPath();
   } catch (const std::exception& e) {
      // Tried again at every check; said once.
      FLASHLOG(trace, rebindFailing_ ? 5 : 1, "wake socket ", path_, " is gone and cannot be bound again: ", e.what());
      rebindFailing_ = true;
      return;
   }
   rebindFailing_ = false;
   // Readers that connected to the old socket before it went are taken in
   // (unless accepting rests; then they see the end and come again).
   if (!acceptPause_.armed()) accept();
   listenWatch_.reset();
   listen_ = std::move(fresh);
   if (!acceptPause_.armed()) watchListener();
   FLASHLOG(trace, 1, "wake socket ", path_, " was removed or replaced; bound it again");
}

void WakeServer::onReader(std::list<Conn>::iterator it) {
   Conn& c = *it;
   for (int n = 0; n < kBatch; ++n) {
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
   if (c.wakePipe) Sys::discard(Sys::calls().write(c.wakePipe.get(), &byte, 1));
   else Sys::discard(Sys::calls().sendto(c.fd.get(), &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL, nullptr, 0));
}

void WakeServer::wakeArmed() {
   for (Conn& c : conns_)
      if (c.armed) wake(c);
}

// ---- client -------------------------------------------------------------------

WakeClient::WakeClient(std::string path, Loop::EventLoop& loop, std::function<void()> onWake,
                       std::function<void()> onGone, std::function<void(const std::string&)> onRefused)
    : path_(std::move(path)), loop_(loop), onWake_(std::move(onWake)), onGone_(std::move(onGone)),
      onRefused_(std::move(onRefused)) {}

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

void WakeClient::disconnect() noexcept {
   pipeWatch_.reset();
   pipe_.reset();
   watch_.reset();
   fd_.reset();
}

bool WakeClient::peerCredentials(uid_t& uid, pid_t& pid) const {
   if (!fd_.valid()) return false;
   ucred cred{};
   socklen_t len = sizeof cred;
   if (!Sys::calls().getsockopt(fd_.get(), SOL_SOCKET, SO_PEERCRED, &cred, &len).ok() || len != sizeof cred)
      return false;
   uid = cred.uid;
   pid = cred.pid;
   return true;
}

void WakeClient::ack(uint32_t count) {
   if (!fd_.valid()) return;
   Sys::Result r = Sys::calls().sendto(fd_.get(), &count, sizeof count, MSG_DONTWAIT | MSG_NOSIGNAL, nullptr, 0);
   if (r.ok() || r.err == EAGAIN) return;
   // A closed connection is read to its end first: what the writer said
   // last (a refusal) decides between refused and gone.
   if (r.err == EPIPE || r.err == ECONNRESET || r.err == ENOTCONN) return;
   drop();
}

// The connection carries the wake pipe (a message with a descriptor), a
// refusal, or wakes themselves when the writer could not make a pipe.
void WakeClient::onReadable() {
   char buf[64];
   iovec iov{buf, sizeof buf};
   alignas(cmsghdr) unsigned char control[CMSG_SPACE(4 * sizeof(int))];
   msghdr msg = oneBufferMessage(iov, control, sizeof control);
   Sys::Result r = Sys::calls().recvmsg(fd_.get(), &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
   if (!r.ok() && r.err == ECONNRESET) {
      // The writer closed with our ack unread. The reset is reported once,
      // ahead of what it sent before closing (a refusal): read that.
      msg = oneBufferMessage(iov, control, sizeof control);
      r = Sys::calls().recvmsg(fd_.get(), &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
   }
   if (!r.ok() && (r.err == EAGAIN || r.err == EWOULDBLOCK)) return;
   if (!r.ok() || r.value == 0) return drop(); // end of stream: the writer is gone
   std::vector<Sys::Fd> received;
   for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
      if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
      const std::size_t n = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
      for (std::size_t i = 0; i < n; ++i) {
         int fd;
         std::memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
         received.emplace_back(fd);
      }
   }
   const std::string_view text(buf, std::min<std::size_t>(static_cast<std::size_t>(r.value), sizeof buf));
   if (text.starts_with("refused")) {
      disconnect();
      if (onRefused_) onRefused_(std::string(text));
      return; // this object may be gone
   }
   if (received.empty()) return woken();
   for (Sys::Fd& fd : received) adoptPipe(std::move(fd));
}

// Keeps the first pipe read end the writer hands over; closes anything else.
void WakeClient::adoptPipe(Sys::Fd fd) {
   struct stat st{};
   if (pipe_ || !Sys::calls().fstat(fd.get(), &st).ok() || !S_ISFIFO(st.st_mode)) return;
   if (!Sys::calls().fcntl(fd.get(), F_SETFL, O_NONBLOCK).ok()) return;
   pipe_ = std::move(fd);
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

bool WakeClient::peerClosed() const {
   if (!fd_.valid()) return true;
   short revents = 0;
   // Hang-up is reported even while messages wait unread ahead of it.
   if (!Sys::calls().pollNow(fd_.get(), POLLRDHUP, revents).ok()) return false;
   return revents & (POLLRDHUP | POLLHUP | POLLERR);
}

void WakeClient::woken() {
   ++wakeups_;
   onWake_();
}

void WakeClient::drop() {
   disconnect();
   onGone_();
}

} // namespace Pond
