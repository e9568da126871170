// The listening end: readable -> free the dead -> accept -> credentials -> validator -> connection.
//
// The constructor makes, binds and watches the listening socket. Each read event frees the
// connections that have died and accepts one client; the loop reports the others again. The client
// passes these gates, each of which closes it unless said otherwise:
//
//   accept fails         nothing to close; logged, and deferred if the next try would fail too
//   getsockopt fails     logged
//   the validator        says no; what it throws leaves with the client still open
//   F_GETFL fails        logged
//   F_SETFL fails        logged; the client stays open, on purpose
//
// After them it is a Connection, which watches its own socket. It is dead once it has let go of
// its registration, stays in the set until the next read event or freeDeadConnections, and
// outlives its own running handler in any case. notifyClients does not look for the dead: their
// send path drops what they get.
//
// The destructor closes the listening socket before the first connection goes, so that no client
// finds a server that is about to leave.

#include "Api/Json/Server.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#define TOVIK_SOURCE_PATH "Api/Json/Server"
#include "Api/Json/detail/Debug.h"
#include "Api/Json/detail/Socket.h"

namespace Tovik {

namespace {

constexpr int kBacklog = 5;

/// Whether another accept may do better at once. All other failures last: a limit that is reached,
/// no memory, a socket that a child has shut down.
bool isPassing(int acceptError) {
  return acceptError == ECONNABORTED ||  // the client has given up meanwhile
         acceptError == EPROTO ||        // the same, as some kernels say it
         acceptError == EAGAIN ||        // a process that shares the socket was faster
         acceptError == EINTR;           // a signal came
}

}  // namespace

Server::Server(const Kelvo::String& name, Handler handler, Validator validator)
    : handler_(std::move(handler)),
      fdControl_(Kelvo::Platform::getFdControl(this)),
      validator_(std::move(validator)) {
  const int fd = createSocket(name);
  if (fd < 0) {
    throw SocketException(-fd);
  }
  ScopedFd socket(fd);
  fdControl_->attach(fd);
  socket.release();
  TOVIK_LOG(0, "Server(): socket fd = " << fd);
}

Server::~Server() {
  const int fd = fdControl_->fd();
  fdControl_->detach();
  ::close(fd);
  for (const auto& connection : connections_) {
    connection->keepWhileRunning(connection);  // one of them may be destroying this server
  }
}

int Server::createSocket(const Kelvo::String& name) {
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
  if (fd < 0) {
    return -errno;
  }
  const sockaddr_un address = addressOf(name);
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0 ||
      ::listen(fd, kBacklog) < 0) {
    const int error = errno;
    ::close(fd);
    return -error;
  }
  return fd;
}

void Server::readFdEvent(int fd) {
  freeDeadConnections();
  sockaddr_un peer{};
  socklen_t peerSize = sizeof peer;
  const int client = ::accept(fd, reinterpret_cast<sockaddr*>(&peer), &peerSize);
  if (client < 0) {
    if (!isPassing(errno)) {
      deferReadEvent();
    }
    TOVIK_LOG(0, "Server::readFdEvent: Failed to accept() -> " << std::strerror(errno));
    return;
  }
  // The validator may turn the loop, which may accept others or free connections. All that is
  // used below is this client's descriptor and the server, which it may not destroy.
  if (!validateConnection(client)) {
    ::close(client);
    return;
  }
  const int flags = ::fcntl(client, F_GETFL, 0);
  if (flags < 0) {
    TOVIK_LOG(0, "Server::readFdEvent: Failed to GETFL -> " << std::strerror(errno));
    ::close(client);
    return;
  }
  if (::fcntl(client, F_SETFL, flags | O_NONBLOCK) < 0) {
    TOVIK_LOG(0, "Server::readFdEvent: Failed to SETFL -> " << std::strerror(errno));
    return;  // the descriptor stays open, on purpose
  }
  ScopedFd socket(client);
  const auto connection = std::make_shared<Connection>(client, handler_);
  socket.release();
  connections_.insert(connection);
  TOVIK_LOG(1, "Server::readFdEvent(): New connection, fd = " << client);
}

void Server::writeFdEvent(int /*fd*/) {}

bool Server::validateConnection(int fd) const {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) < 0) {
    TOVIK_LOG(0, "Server::validateConnection( " << fd << ") => " << std::strerror(errno));
    return false;
  }
  const bool accepted = validator_(peer.pid, peer.uid, peer.gid);
  TOVIK_LOG(1, "Server::validateConnection( " << fd << " ): pid = " << peer.pid
                                              << ", uid = " << peer.uid << ", gid = " << peer.gid
                                              << " => " << (accepted ? "accepted" : "denied"));
  return accepted;
}

void Server::notifyClients(const Message& msg) {
  for (const auto& connection : connections_) {
    if (connection->notification_) {
      connection->sendMsg(msg);
    }
  }
}

void Server::freeDeadConnections() {
  for (auto at = connections_.begin(); at != connections_.end();) {
    const auto& connection = *at;
    if (connection->isAttached()) {
      ++at;
      continue;
    }
    connection->keepWhileRunning(connection);  // a handler may be the one who calls this
    at = connections_.erase(at);
  }
}

}  // namespace Tovik
