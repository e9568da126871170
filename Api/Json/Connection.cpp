// One client of a server: read event -> payload -> message -> switch or handler -> reply.
//
// readFdEvent takes one payload from the socket. An empty one is the end of the connection; one
// that is not JSON is logged and dropped; what remains is a message. handleNotifMsg takes the
// notification switch out of them and applies it. All others go to the application's handler, which
// answers with acknowledge or sendMsg, now or later, or not at all: the connection never answers by
// itself, but for the switch. acknowledge is silent for a dead connection and for a subscribed one.
//
// The handler may do anything, ending this connection or its server included. So it comes last: no
// member is touched after it. What drops the connection meanwhile lets the running callback
// share it, so that the handler and what it has captured stay until it returns.

#include "Api/Json/Connection.h"

#include <cstring>
#include <utility>

#define TOVIK_SOURCE_PATH "Api/Json/Connection"
#include "Api/Json/detail/Debug.h"
#include "Api/Json/detail/Deep.h"

namespace Tovik {

Connection::Connection(int fd, Handler handler) : handler_(std::move(handler)) {
  setFd(fd);
}

Connection::~Connection() = default;

void Connection::readFdEvent(int fd) {
  TOVIK_LOG(2, "Connection::readFdEvent(): fd = " << fd);
  Kelvo::String text;
  if (asyncRead(text) < 0 || text.empty()) {
    return terminateConnection();
  }
  Message msg;
  parse(text, msg);
  TOVIK_LOG(3, "msg = '" << text << "'");
  if (msg.HasParseError()) {
    TOVIK_LOG(0, "Connection::readFdEvent(): Invalid JSON message");
    return;
  }
  if (!handleNotifMsg(msg)) {
    handler_(*this, msg);
  }
}

// The members are looked up without a look at their types, on purpose: RapidJSON's assertions end
// the process for a message of the wrong shape.
bool Connection::handleNotifMsg(const Message& msg) {
  const auto command = msg.FindMember("command");
  if (command == msg.MemberEnd()) {
    return false;
  }
  const auto notification = msg.FindMember("notification");
  if (notification == msg.MemberEnd()) {
    return false;
  }
  if (std::strcmp(command->value.GetString(), "set") != 0) {
    return false;
  }
  if (!notification->value.IsBool()) {
    return true;
  }
  const bool before = notification_;
  // Before the flag changes: a client that was subscribed gets no reply. The write may end the
  // connection; it stays an object, whose flag is no longer looked at.
  acknowledge(0);
  notification_ = notification->value.GetBool();
  TOVIK_LOG(1, "Connection::readFdEvent(): Client (fd = "
                   << (fdControl_.empty() ? -1 : fdControl_->fd())  // the reply may have met EPIPE
                   << ") notification: " << before << " -> " << notification_);
  return true;
}

void Connection::acknowledge(unsigned status) {
  if (fdControl_.empty() || notification_) {
    return;
  }
  Message reply;
  reply.SetObject();
  reply.AddMember("type", "reply", reply.GetAllocator());
  reply.AddMember("status", status, reply.GetAllocator());
  asyncSendMsg(reply);
}

bool Connection::sendMsg(const Message& msg) {
  if (msg.HasParseError()) {
    return false;
  }
  asyncSendMsg(msg);
  return true;
}

}  // namespace Tovik
