#include "Kelvo/Platform/EpollControl.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "Kelvo/Platform/CallbackFrame.h"

namespace Kelvo::Platform {

namespace {

bool isListening(int fd) {
  int listening = 0;
  socklen_t size = sizeof listening;
  return getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 && listening != 0;
}

std::uint32_t eventsFor(bool writeInterest) {
  return writeInterest ? EPOLLIN | EPOLLOUT : EPOLLIN;
}

/// The limit of the process and that of the system show alike.
bool canOpenDescriptors() {
  const int probe = eventfd(0, EFD_CLOEXEC);
  if (probe < 0) {
    return false;
  }
  ::close(probe);
  return true;
}

}  // namespace

/// A time during which one kind of event is not asked for.
class EpollControl::Pause final : public TimerQueue::Entry {
 public:
  explicit Pause(EpollControl& control) : control_(control) {}

  bool expire() override {
    control_.resume();
    return false;
  }

  /// 1, 2, 4 ... up to 100 ms since that event last made progress.
  std::chrono::milliseconds lengthen(std::uint32_t event) {
    event_ = event;
    length_ = std::clamp(2 * length_, std::chrono::milliseconds(1), std::chrono::milliseconds(100));
    return length_;
  }
  std::chrono::milliseconds length() const { return length_; }
  std::uint32_t event() const { return event_; }
  void startOver() { length_ = std::chrono::milliseconds(0); }

 private:
  EpollControl& control_;
  std::uint32_t event_ = 0;
  std::chrono::milliseconds length_{0};
};

EpollControl::EpollControl(Ptr<LoopCore> core, FdEventHandler& handler)
    : core_(std::move(core)), handler_(handler) {}

EpollControl::~EpollControl() {
  detach();
}

void EpollControl::attach(int fd) {
  detach();
  token_ = core_->add(fd, *this);
  fd_ = fd;
}

void EpollControl::detach() {
  if (fd_ < 0) {
    return;
  }
  core_->remove(token_);
  if (pause_) {
    core_->cancel(*pause_);
    pause_.reset();
  }
  fd_ = -1;
  writeInterest_ = false;
  readBefore_ = false;
  listening_ = Listening::kUnknown;
}

void EpollControl::setWriteInterest(bool wanted) {
  if (wanted == writeInterest_ || fd_ < 0) {
    return;
  }
  core_->setEvents(token_, eventsFor(wanted));
  writeInterest_ = wanted;
  if (pause_) {
    core_->cancel(*pause_);
    pause_->startOver();
  }
}

bool EpollControl::deliverRead() {
  const auto token = token_;
  const auto core = core_.get();  // outlives this control: a turn of it is running
  const auto attachmentsBefore = core->attachments();
  runGuarded(
      handler_, [fd = fd_](FdEventHandler& handler) { handler.readFdEvent(fd); },
      [fd = fd_](FdEventHandler& handler) { return handler.handleFdException(fd); });
  if (core->find(token) != this) {
    return true;  // detached, and perhaps gone
  }
  pauseUnlessProgress(EPOLLIN, core->attachments() != attachmentsBefore || !stuckAccepting());
  return true;
}

bool EpollControl::deliverWrite() {
  if (!writeInterest_) {
    return false;
  }
  const auto token = token_;
  const auto core = core_.get();
  runGuarded(
      handler_, [fd = fd_](FdEventHandler& handler) { handler.writeFdEvent(fd); },
      [fd = fd_](FdEventHandler& handler) { return handler.handleFdException(fd); });
  if (core->find(token) == this) {
    pauseUnlessProgress(EPOLLOUT, !writeInterest_ || !stuckWriting());
  }
  return true;
}

/// Whether nothing can be accepted for want of descriptors. Most descriptors do not listen, and
/// many are read only once, so the kernel is asked on the second read, and about each descriptor
/// once.
bool EpollControl::stuckAccepting() {
  if (listening_ == Listening::kUnknown && std::exchange(readBefore_, true)) {
    listening_ = isListening(fd_) ? Listening::kYes : Listening::kNo;
  }
  return listening_ == Listening::kYes && !canOpenDescriptors();
}

/// Whether the socket can take more although the callback could not give it all: it met an error
/// that waiting does not cure, such as a record too large for the socket.
bool EpollControl::stuckWriting() const {
  pollfd query{fd_, POLLOUT, 0};
  return poll(&query, 1, 0) == 1 && (query.revents & POLLOUT) != 0;
}

void EpollControl::pauseUnlessProgress(std::uint32_t event, bool progress) {
  if (progress) {
    if (pause_ && pause_->event() == event) {
      pause_->startOver();
    }
    return;
  }
  if (!pause_) {
    pause_ = std::make_unique<Pause>(*this);
  }
  core_->schedule(*pause_, LoopCore::now() + pause_->lengthen(event));
  core_->setEvents(token_, eventsFor(writeInterest_) & ~event);
}

void EpollControl::resume() {
  core_->schedule(*pause_, LoopCore::now() + pause_->length());  // in case the kernel refuses now
  core_->setEvents(token_, eventsFor(writeInterest_));
  core_->cancel(*pause_);
}

}  // namespace Kelvo::Platform
