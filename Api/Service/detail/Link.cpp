// Both ways of a record. send -> (socket full) -> queue -> write event; read event -> record or
// end.

#include "Api/Service/detail/Link.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

#include "Api/Service/detail/Convention.h"

namespace Tovik {

void Link::open(int fd) {
  auto control = Kelvo::Platform::getFdControl(this);
  control->attach(fd);
  control_ = std::move(control);
  state_ = State::kOpen;
}

void Link::send(Text text, const void* tag) {
  if (!isOpen() || (queue_.empty() && write(*text))) {
    return;
  }
  bytes_ += text->size();
  queue_.push_back({std::move(text), tag});
  control_->setWriteInterest(true);
}

/// True if nothing is left to do for this text. SIGPIPE is nobody's business here.
bool Link::write(const std::string& text) {
  if (::send(control_->fd(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
    return true;
  }
  if (errno == EAGAIN) {
    return false;
  }
  if (errno == ENOBUFS || errno == ENOMEM) {
    deferWriteEvent();
    return false;
  }
  stop(State::kMute);
  return true;
}

void Link::unqueue(const void* tag) {
  for (auto at = queue_.begin(); at != queue_.end();) {
    if (at->tag == tag) {
      bytes_ -= at->text->size();
      at = queue_.erase(at);
    } else {
      ++at;
    }
  }
}

void Link::shutDown(std::string reason) {
  if (isOpen()) {
    reason_ = std::move(reason);
    stop(State::kDown);
  }
}

void Link::stop(State state) {
  state_ = state;
  queue_.clear();
  bytes_ = 0;
  ::shutdown(control_->fd(), SHUT_RDWR);  // which makes it readable
}

void Link::drop() noexcept {
  if (control_) {
    const int fd = control_->fd();
    control_->detach();
    control_.reset();
    ::close(fd);
  }
  queue_.clear();
  bytes_ = 0;
}

void Link::end(const std::string& reason) {
  drop();
  onEnd(reason);  // which may destroy this
}

void Link::readFdEvent(int fd) {
  if (state_ == State::kDown) {
    return end(std::exchange(reason_, {}));
  }
  char buffer[Convention::kLongestRecord + 1];
  const auto size = ::recv(fd, buffer, sizeof buffer - 1, MSG_DONTWAIT | MSG_TRUNC);
  if (size < 0) {
    return errno == EAGAIN || errno == EINTR ? void() : end(std::strerror(errno));
  }
  if (size == 0) {
    return end("it closed the connection");
  }
  const auto length = static_cast<std::size_t>(size);
  if (length >= sizeof buffer) {
    return onTooLong(length);
  }
  buffer[length] = '\0';
  onRecord(buffer);
}

void Link::writeFdEvent(int /*fd*/) {
  while (!queue_.empty() && write(*queue_.front().text)) {
    if (!isOpen()) {
      return;  // shut down, which has emptied the queue
    }
    bytes_ -= queue_.front().text->size();
    queue_.pop_front();
  }
  control_->setWriteInterest(!queue_.empty());
}

}  // namespace Tovik
