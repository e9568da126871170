// The queued sender. send -> queue -> flush -> (socket full) -> write event -> flush; and, for the
// subclasses' read events, read -> text. Both ends of it come together in terminateConnection.

#include "Api/Json/Async.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#define TOVIK_SOURCE_PATH "Api/Json/Async"
#include "Api/Json/Debug.h"
#include "Api/Json/Socket.h"
#include "Api/Json/Unattached.h"

namespace Tovik {

std::atomic<int> unattachedSenders{0};

namespace {

/// The only text leaves by the back: a deque whose end moves on with each text would need memory
/// again and again.
void dropFirst(std::deque<Kelvo::String>& queue) {
  if (queue.size() == 1) {
    queue.pop_back();
  } else {
    queue.pop_front();
  }
}

}  // namespace

AsyncSender::AsyncSender() : readBufferSize_(kReadBufferSize) {
  unattachedSenders.fetch_add(1, std::memory_order_relaxed);
}

AsyncSender::~AsyncSender() {
  AsyncSender::terminateConnection();
  unattachedSenders.fetch_sub(1, std::memory_order_relaxed);
}

void AsyncSender::setFd(int fd) {
  terminateConnection();
  auto control = Kelvo::Platform::getFdControl(this);
  control->attach(fd);
  fdControl_ = std::move(control);
  unattachedSenders.fetch_sub(1, std::memory_order_relaxed);
}

void AsyncSender::asyncSendMsg(const Message& msg) {
  Kelvo::String text = Message::toStr(msg, false);
  TOVIK_LOG(3, "AsyncSender::asyncSendMSg() -> " << text);
  sendQueue_.push_back(std::move(text));
  flushQueue();
}

void AsyncSender::flushQueue() {
  if (fdControl_.empty()) {
    return;
  }
  TOVIK_LOG(2, "AsyncSender::flushQueue(), queue size = " << sendQueue_.size());
  while (!sendQueue_.empty()) {
    const Kelvo::String& text = sendQueue_.front();
    if (::write(fdControl_->fd(), text.data(), text.size()) >= 0) {
      dropFirst(sendQueue_);  // a record is written whole or not at all
      continue;
    }
    if (errno == EPIPE) {
      return terminateConnection();
    }
    if (errno != EAGAIN) {
      deferWriteEvent();
      TOVIK_LOG(0, "AsyncSender::flushQueue(): write error " << std::strerror(errno));
    }
    return fdControl_->setWriteInterest(true);
  }
  fdControl_->setWriteInterest(false);
}

void AsyncSender::writeFdEvent(int /*fd*/) {
  flushQueue();
}

int AsyncSender::asyncRead(Kelvo::String& out) const {
  if (fdControl_.empty()) {
    return -1;
  }
  char buffer[kReadBufferSize];
  out.clear();
  while (true) {
    const auto length = ::read(fdControl_->fd(), buffer, sizeof buffer - 1);
    if (length < 0) {
      if (errno == EAGAIN) {
        return 0;
      }
      TOVIK_LOG(0, "AsyncSender::asynRead(): read failed -> " << std::strerror(errno));
      return -1;
    }
    buffer[length] = '\0';
    out.append(std::string_view(buffer));  // up to the first NUL: messages are text
    if (length < readBufferSize_ - 1) {
      return 0;
    }
  }
}

void AsyncSender::terminateConnection() {
  if (fdControl_.empty()) {
    return;
  }
  const int fd = fdControl_->fd();
  TOVIK_LOG(1, "AsyncSender::terminateConnection(): fd = " << fd);
  fdControl_->detach();
  fdControl_.reset();
  unattachedSenders.fetch_add(1, std::memory_order_relaxed);
  ::close(fd);
  clearQueue();
}

void AsyncSender::clearQueue() {
  if (!sendQueue_.empty()) {  // a fresh queue needs memory, which most teardowns can do without
    std::deque<Kelvo::String>().swap(sendQueue_);
  }
}

}  // namespace Tovik
