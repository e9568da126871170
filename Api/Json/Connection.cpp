// One client of a server. read event -> text -> message -> notification switch or handler -> reply.

#include "Api/Json/Connection.h"

#include <cstring>
#include <utility>

#define TOVIK_SOURCE_PATH "Api/Json/Connection"
#include "Api/Json/Debug.h"

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
  msg.Parse(text.data());
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
  acknowledge(0);  // before the flag changes: a client that was subscribed gets no reply
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
