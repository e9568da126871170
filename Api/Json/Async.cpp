// The queued sender: attach -> send -> flush -> (socket full) -> write event -> flush -> end.
//
// setFd ends what is held and has the loop watch the new socket. asyncSendMsg makes a message its
// compact text, queues it and flushes: there is no way around the queue, so records leave in the
// order of the calls. flushQueue writes one record a call until one of these happens:
//
//   the queue is empty   write interest goes off, so that an idle connection never wakes the loop
//   EAGAIN               the socket is full: write interest goes on, the write event flushes again
//   EPIPE                the peer is gone: the connection ends
//   any other error      logged; the record stays first, and is tried again at a falling rate
//
// asyncRead gives a subclass's read event the text of all that the socket holds, and leaves the
// meaning of an empty text to it. terminateConnection is the one way to an end: log, detach, let go
// of the registration, close, drop the queue, in this order, and without any memory. A sender is
// attached exactly while fdControl_ holds a registration; its owner knows no other sign of life.
//
// Two kinds of calls leave this file: overrides of terminateConnection, after which everything
// returns, and sinks of the debug channel, after which the sender looks again at what it holds.

#include "Api/Json/Async.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#define TOVIK_SOURCE_PATH "Api/Json/Async"
#include "Api/Json/detail/Debug.h"
#include "Api/Json/detail/Socket.h"

namespace Tovik {

namespace {

using Queue = std::deque<Kelvo::String>;

/// The front never rests on the first place of a block after a backlog: the standard library would
/// not give back the storage of such a deque.
void dropFirstOfBacklog(Queue& queue) {
  const bool nextStartsBlock = queue.size() == 2 && &queue[1] != &queue[0] + 1;
  if (!nextStartsBlock) {
    return queue.pop_front();
  }
  queue[0] = std::move(queue[1]);
  queue.pop_back();
}

/// The only text leaves by the back: a deque whose end moves on with each text would need memory
/// again and again.
void dropFirst(Queue& queue) {
  queue.size() == 1 ? queue.pop_back() : dropFirstOfBacklog(queue);
}

void wantWriteEvents(const Kelvo::Ptr<Kelvo::Platform::FdControl>& control, bool wanted) {
  if (!control.empty()) {  // as it is once the log's sink has ended the connection
    control->setWriteInterest(wanted);
  }
}

}  // namespace

AsyncSender::AsyncSender() : readBufferSize_(kReadBufferSize) {}

AsyncSender::~AsyncSender() {
  AsyncSender::terminateConnection();
}

void AsyncSender::setFd(int fd) {
  terminateConnection();  // an override may attach meanwhile: what it attached is replaced below
  auto control = Kelvo::Platform::getFdControl(this);
  control->attach(fd);
  fdControl_ = std::move(control);
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
  while (isAttached() && !sendQueue_.empty()) {  // the log's sink may have ended the connection
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
    return wantWriteEvents(fdControl_, true);
  }
  wantWriteEvents(fdControl_, false);
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
  auto ended = fdControl_;
  const int fd = ended->fd();
  TOVIK_LOG(1, "AsyncSender::terminateConnection(): fd = " << fd);
  if (fdControl_.get() != ended.get()) {
    return;  // the log's sink has ended this connection itself, and may have attached another
  }
  ended.reset();
  fdControl_->detach();
  fdControl_.reset();
  ::close(fd);
  clearQueue();
}

// Part of every teardown, so it must not fail: without memory for a fresh queue the old storage
// stays, with no text in it. A queue that never had a backlog is fresh, and nothing is allocated.
void AsyncSender::clearQueue() {
  while (!sendQueue_.empty()) {
    dropFirst(sendQueue_);
  }
  sendQueue_.shrink_to_fit();
}

}  // namespace Tovik
