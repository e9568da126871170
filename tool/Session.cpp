// A command's connection: connect (again, while the server's queue of clients is full) -> the
// server's user -> connected; then read events -> received; any end -> lost.

#include "tool/Session.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

namespace tool {

namespace {

constexpr double kPauseWhileFull = 0.02;  // seconds: the kernel does not tell when there is room

/// Zeros up to the structure's end belong to the address.
sockaddr_un addressOf(const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path + 1, name.data(),
              std::min(name.size(), sizeof address.sun_path - 2));
  return address;
}

}  // namespace

Session::Session(std::string name, double reconnectSeconds)
    : name_(std::move(name)), reconnectSeconds_(reconnectSeconds) {
  connect_.arm(0);
}

Session::Session(std::string name, AcceptedFd client)
    : name_(std::move(name)), reconnectSeconds_(0) {
  setFd(client.fd);
}

void Session::connect() {
  const sockaddr_un address = addressOf(name_);
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    full_ = false;
    lossError_ = EPIPE;  // of a write, unless a read sees the end first
    setFd(fd);
    checkServer();
    flushQueue();  // what was sent before there was a connection goes first
    return isAttached() ? connected() : void();
  }
  const int error = errno;
  if (fd >= 0) {
    ::close(fd);
  }
  full_ = error == EAGAIN;
  if (full_) {
    return connect_.arm(kPauseWhileFull);
  }
  if (reconnectSeconds_ > 0) {
    connect_.arm(reconnectSeconds_);
  }
  notConnected(error);
}

/// The kernel names the process that listens, to the client too: the one that has taken the name of
/// somebody else's server is found out.
void Session::checkServer() {
  ucred server{};
  socklen_t size = sizeof server;
  if (!common.serverUid) {
    return;
  }
  if (::getsockopt(fdControl_->fd(), SOL_SOCKET, SO_PEERCRED, &server, &size) < 0) {
    throw Failure(Exit::kLost, "the kernel does not tell whose server " + inQuotes(name_) +
                                   " is, so nothing was sent: " + std::strerror(errno) + ".");
  }
  if (server.uid != *common.serverUid) {
    throw Failure(Exit::kLost, "the server " + inQuotes(name_) + " belongs to user " +
                                   std::to_string(server.uid) + " and not to " +
                                   std::to_string(*common.serverUid) +
                                   ", so nothing was sent; find out who has taken the name with "
                                   "'tovik list --long'.");
  }
}

void Session::send(const std::string& text) {
  sendQueue_.emplace_back(text);
  flushQueue();
}

void Session::readFdEvent(int fd) {
  std::string record;
  const long length = readRecord(fd, record);
  if (length == -EAGAIN || length == -EINTR) {
    return;
  }
  if (length <= 0) {
    lossError_ = static_cast<int>(-length);
    return terminateConnection();
  }
  received(std::move(record));
}

void Session::terminateConnection() {
  const bool ended = isAttached();
  AsyncSender::terminateConnection();
  if (!ended) {
    return;
  }
  if (reconnectSeconds_ > 0) {
    connect_.arm(reconnectSeconds_);
  }
  lost(lossError_);
}

/// A server that closes without having read leaves nothing unread either, but an error first.
bool Session::allTaken() const {
  int unread = 0;
  if (!isAttached() || ::ioctl(fdControl_->fd(), SIOCOUTQ, &unread) < 0 || unread > 0) {
    return false;
  }
  pollfd state{fdControl_->fd(), 0, 0};
  return ::poll(&state, 1, 0) >= 0 && (state.revents & POLLERR) == 0;
}

void Session::await(Run& run, const std::function<bool()>& done, double interval) const {
  run.within(
      common.timeLimit(), done, [this] { return lateText(); }, interval);
}

std::string Session::lateText() const {
  if (full_) {
    return "the server " + inQuotes(name_) + " accepted no client within " +
           secondsText(common.timeLimit()) + ", and no more may wait; see 'tovik list --long'.";
  }
  return "the server " + inQuotes(name_) + " did not answer within " +
         secondsText(common.timeLimit()) + "; give it more with --timeout.";
}

void Session::lost(int /*error*/) {
  throw lostFailure();
}

void Session::notConnected(int error) {
  throw notConnectedFailure(error);
}

Failure Session::lostFailure() const {
  return {Exit::kLost, "the server " + inQuotes(name_) +
                           " closed the connection before an answer; see whether it admits "
                           "uid " +
                           std::to_string(::getuid()) + " and whether it still runs."};
}

Failure Session::notConnectedFailure(int error) const {
  if (error == ECONNREFUSED) {
    return noServer(name_);
  }
  return {Exit::kLost,
          "the connection to " + inQuotes(name_) + " failed: " + std::strerror(error) + "."};
}

long readRecord(int fd, std::string& record) {
  const auto length = ::recv(fd, nullptr, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
  if (length < 0) {
    return -errno;
  }
  record.resize(static_cast<std::size_t>(length) + 1);  // one more: an empty record is taken, too
  const auto read = ::recv(fd, record.data(), record.size(), MSG_DONTWAIT);
  record.resize(read < 0 ? 0 : static_cast<std::size_t>(read));
  return read < 0 ? -errno : read;
}

}  // namespace tool
