// A command's connection. The library's timer calls timeout -> connect (interrupted now and then)
// -> the server's user -> connected; then read events -> received; any end -> lost.

#include "tool/Session.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

namespace tool {

namespace {

/// Connecting blocks while the server's backlog is full. As long as this object lives, a timer
/// signal interrupts it ten times a second: the attempt fails, the loop gets a turn for its
/// time-outs and Ctrl-C, and the next attempt follows.
class ConnectInterrupter {
 public:
  ConnectInterrupter() {
    struct sigaction action {};
    action.sa_handler = [](int) {};  // without SA_RESTART
    ::sigaction(SIGALRM, &action, nullptr);
    const timeval tick{0, 100000};
    const itimerval ticks{tick, tick};
    ::setitimer(ITIMER_REAL, &ticks, nullptr);
  }
  ConnectInterrupter(const ConnectInterrupter&) = delete;
  ConnectInterrupter& operator=(const ConnectInterrupter&) = delete;
  ~ConnectInterrupter() {
    const itimerval none{};
    ::setitimer(ITIMER_REAL, &none, nullptr);
  }
};

}  // namespace

Session::Session(const std::string& name, const Options& options, int reconnectInterval)
    : AsyncClient(
          name, [](AsyncClient&, const Tovik::Message&) {},
          [this](AsyncClient&) {
            reached_ = true;
            checkServer();
            connected();
          },
          reconnectInterval),
      name_(name),
      options_(options),
      reconnects_(reconnectInterval > 0) {}

void Session::timeout() {
  if (reached_ && !reconnects_) {
    return;
  }
  reached_ = false;
  lossError_ = EPIPE;  // of a write, unless a read sees the end first
  int error = 0;
  {
    const ConnectInterrupter interrupter;
    errno = 0;
    AsyncClient::timeout();
    error = errno;  // nothing after a failed connect changes it
  }
  if (!reached_ && error != EINTR) {
    notConnected(error);
  }
}

/// The kernel names the process that listens, to the client too: whoever has taken the name of
/// somebody else's server is found out.
void Session::checkServer() {
  ucred server{};
  socklen_t size = sizeof server;
  if (!options_.serverUid) {
    return;
  }
  if (::getsockopt(fdControl_->fd(), SOL_SOCKET, SO_PEERCRED, &server, &size) < 0) {
    throw Failure(Exit::kLost, "the kernel does not tell whose server " + inQuotes(name_) +
                                   " is, so nothing was sent: " + std::strerror(errno) + ".");
  }
  if (server.uid != *options_.serverUid) {
    throw Failure(Exit::kLost, "the server " + inQuotes(name_) + " belongs to user " +
                                   std::to_string(server.uid) + " and not to " +
                                   std::to_string(*options_.serverUid) +
                                   ", so nothing was sent; find out who has taken the name with "
                                   "'tovik list --long'.");
  }
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

void Session::writeFdEvent(int fd) {
  AsyncClient::writeFdEvent(fd);
  if (isAttached() && allWritten()) {
    written();
  }
}

void Session::terminateConnection() {
  const bool ended = isAttached();
  AsyncClient::terminateConnection();
  if (ended) {
    lost(lossError_);
  }
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
    return {Exit::kNoServer, "no server listens under " + inQuotes(name_) +
                                 "; start it, or see the names with 'tovik list'."};
  }
  return {Exit::kLost, "the connection to " + inQuotes(name_) + " failed: " + std::strerror(error) +
                           "; mend that and try again."};
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

double timeLimit(const Options& options, double unlessGiven) {
  return options.timeout.value_or(unlessGiven);
}

}  // namespace tool
