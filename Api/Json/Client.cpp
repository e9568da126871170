// Both clients, and how either connects.
//
// createSocket makes a connected socket; the connect itself always blocks. The blocking client does
// one thing after the other on its caller's thread: connect, write a record, read the next one and
// judge it as a reply. The asynchronous client is driven by its timer and its socket:
//
//   state         event                 what happens                                  next
//   unconnected   timer                 connect succeeds: attach, connect handler     connected
//   unconnected   timer                 connect fails: arm the timer                  unconnected
//   connected     record                parse, message handler                        connected
//   connected     record is no JSON     logged and dropped                            connected
//   connected     end or read error     close, drop the queue, arm the timer          unconnected
//   connected     write meets EPIPE     the same                                      unconnected
//
// Each way to "unconnected" goes through terminateConnection, and so does each attachment (setFd
// ends first what it replaces), which arms the timer then too. The loop withholds that expiry while
// the client is attached: so the timer stands for "try again" and never ends a connection that
// works. What was queued while unconnected leaves with the first message after the next connect.

#include "Api/Json/Client.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#define TOVIK_SOURCE_PATH "Api/Json/Client"
#include "Api/Json/detail/Debug.h"
#include "Api/Json/detail/Deep.h"
#include "Api/Json/detail/Socket.h"

namespace Tovik {

namespace {

/// A socket connected to the server of that name, or minus the errno value. The connect itself
/// blocks in any case.
int createSocket(const Kelvo::String& name, bool nonBlocking) {
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
  if (fd < 0) {
    return -errno;
  }
  const sockaddr_un address = addressOf(name);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
    const int error = errno;
    ::close(fd);
    return -error;
  }
  if (!nonBlocking) {
    return fd;
  }
  const int flags = ::fcntl(fd, F_GETFL, 0);
  if (flags < 0) {
    const int error = errno;
    TOVIK_LOG(0, "createSocket: Failed to GETFL -> " << std::strerror(errno));
    ::close(fd);
    return -error;
  }
  if (::fcntl(fd, F_SETFL, flags | O_NONBLOCK) >= 0) {
    return fd;
  }
  const int error = errno;
  ::close(fd);
  TOVIK_LOG(0, "createSocket: Failed to SETFL -> " << std::strerror(errno));
  return -error;
}

}  // namespace

// --- the blocking client ---

Client::Client(const Kelvo::String& name) : readBufferSize_(kReadBufferSize) {
  const int fd = createSocket(name, false);
  if (fd < 0) {
    throw SocketException(-fd);
  }
  fd_ = fd;
}

Client::~Client() {
  closeSocket();
}

void Client::closeSocket() {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

int Client::sendMsg(const Message& msg, bool waitForAck) const {
  if (fd_ < 0 || msg.HasParseError()) {
    return -1;
  }
  const Kelvo::String text = Message::toStr(msg, false);
  if (::write(fd_, text.data(), text.size()) < 0) {
    TOVIK_LOG(0, "Client::sendMsg(): Failed to write() " << std::strerror(errno));
    return -1;
  }
  return waitForAck ? waitAck() : 0;
}

Message Client::waitForMsg() const {
  char buffer[kReadBufferSize];
  const auto length = ::read(fd_, buffer, sizeof buffer - 1);
  if (length < 0) {
    throw SocketException(errno);
  }
  if (length == 0) {
    throw SocketException(EPIPE);
  }
  buffer[length] = '\0';
  Message msg;
  msg.Parse(buffer);
  return msg;
}

// "status" is looked at before its type is relied on, "type" is not: RapidJSON's assertions end the
// process for an answer of the wrong shape.
int Client::waitAck() const {
  const Message msg = waitForMsg();
  if (msg.HasParseError()) {
    TOVIK_LOG(0, "Client::waitAck(): message isn't valid JSON");
    return -1;
  }
  const auto type = msg.FindMember("type");
  const auto status = msg.FindMember("status");
  if (type == msg.MemberEnd() || status == msg.MemberEnd() || !status->value.IsUint() ||
      std::strcmp(type->value.GetString(), "reply") != 0) {
    TOVIK_LOG(0, "Client::waitAck(): message isn't valid ack");
    return -1;
  }
  const auto result = static_cast<int>(status->value.GetUint());
  if (result < 0) {
    TOVIK_LOG(0, "Client::waitAck(): invalid status " << result);
    return -1;
  }
  return result;
}

// --- the client for the event loop ---

AsyncClient::AsyncClient(const Kelvo::String& name, MessageHandler messageHandler,
                         ConnectHandler connectHandler, int reconnectInterval)
    : socketName_(name),
      messageHandler_(std::move(messageHandler)),
      connectHandler_(std::move(connectHandler)),
      timer_(Kelvo::Platform::getTimer(this, this)),
      reconnectInterval_(reconnectInterval) {
  timer_->arm(0);
}

AsyncClient::~AsyncClient() = default;

void AsyncClient::timeout() {
  TOVIK_LOG(3, "AsyncClient::timeout()");
  const int fd = createSocket(socketName_, true);
  if (fd < 0) {
    return terminateConnection();  // which arms the timer for the next attempt
  }
  ScopedFd socket(fd);
  setFd(fd);
  socket.release();
  connectHandler_(*this);
}

void AsyncClient::readFdEvent(int /*fd*/) {
  Kelvo::String text;
  if (asyncRead(text) < 0 || text.empty()) {
    return terminateConnection();
  }
  Message msg;
  parse(text, msg);
  TOVIK_LOG(3, "AsyncClient::readFdEvent(): msg = '" << text << "'");
  if (msg.HasParseError()) {
    TOVIK_LOG(0, "AsyncClient::readFdEvent(): Invalid JSON message");
    return;
  }
  messageHandler_(*this, msg);
}

// The loop withholds the timer's expiry while this client has a descriptor attached, so arming it
// on every teardown, the one inside setFd included, never ends a connection that works.
void AsyncClient::terminateConnection() {
  AsyncSender::terminateConnection();
  timer_->arm(static_cast<double>(reconnectInterval_));
}

}  // namespace Tovik
