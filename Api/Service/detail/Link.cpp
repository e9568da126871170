// Both ways of a record. send -> (socket full) -> queue -> write event; read event -> record or
// end.

#include "Api/Service/detail/Link.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace Tovik {

void Link::open(Convention::OwnedFd& fd) {
  auto control = Kelvo::Platform::getFdControl(this);
  control->attach(fd.get());
  fd.release();
  control_ = std::move(control);
  isOpen_ = true;
}

void Link::send(const std::string& text, const void* tag) {
  if (!isOpen() || (queue_.empty() && write(text))) {
    return;
  }
  bytes_ += text.size();
  queue_.push_back({text, tag});
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
  shutDown();
  return true;
}

void Link::unqueue(const void* tag) {
  queue_.remove_if([this, tag](const Waiting& each) {
    bytes_ -= each.tag == tag ? each.text.size() : 0;
    return each.tag == tag;
  });
}

void Link::shutDown(std::string reason) {
  if (isOpen()) {
    reason_ = std::move(reason);
    clear();
    ::shutdown(control_->fd(), SHUT_RDWR);  // which makes it readable
  }
}

void Link::drop() noexcept {
  if (control_) {
    const int fd = control_->fd();
    control_->detach();
    control_.reset();
    ::close(fd);
  }
  clear();
}

void Link::clear() noexcept {
  isOpen_ = false;
  queue_.clear();
  bytes_ = 0;
}

void Link::readFdEvent(int fd) {
  char buffer[Convention::kLongestRecord + 1];
  const auto size =
      reason_.empty() ? ::recv(fd, buffer, sizeof buffer - 1, MSG_DONTWAIT | MSG_TRUNC) : 0;
  if (size > 0) {
    const auto length = static_cast<std::size_t>(size);
    buffer[std::min(length, Convention::kLongestRecord)] = '\0';
    return onRecord(buffer, length);
  }
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  if (reason_.empty()) {
    reason_ = size < 0 ? std::strerror(errno) : "it closed the connection";
  }
  drop();
  onEnd(std::exchange(reason_, {}));  // which may destroy this
}

void Link::writeFdEvent(int /*fd*/) {
  while (!queue_.empty() && write(queue_.front().text)) {
    if (!isOpen()) {
      return;  // shut down, which has emptied the queue
    }
    bytes_ -= queue_.front().text.size();
    queue_.pop_front();
  }
  control_->setWriteInterest(!queue_.empty());
}

}  // namespace Tovik
