// One descriptor's way through the loop: attach -> read and write events, as the kernel reports
// them -> detach.
//
// Readiness is level-triggered, so an event with which the handler can do nothing would come again
// at once and for ever: clients that cannot be accepted, a record that the socket does not take.
// Only the handler knows that; a guess from outside slows a healthy one down, or lets an
// unusual failure spin. So the handler says it (`deferReadEvent`, `deferWriteEvent`), and the event
// is not asked of the kernel during a pause of 1, 2, 4 ... up to 100 ms. Each of the two events has
// its own pause, a timer of the loop:
//
//   callback defers         -> the pause begins, twice as long as the last one
//   the pause is over       -> the event is asked for again
//   callback does not defer -> the next pause is a short one
//   detach, write interest  -> likewise, and a pause that has begun is over
//
// What is asked of the kernel follows from the write interest and the two pauses: `events()`.

#include "Kelvo/Platform/detail/EpollControl.h"

#include <sys/epoll.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "Kelvo/Exception.h"

namespace Kelvo::Platform {

/// A time during which one kind of event is not asked for; it lasts while the entry is queued.
class EpollControl::Pause final : public TimerQueue::Entry {
 public:
  explicit Pause(EpollControl& control) : control_(control) {}

  bool expire() override {
    control_.resume(*this);
    return false;
  }

  std::chrono::milliseconds lengthen() {
    length_ = std::clamp(2 * length_, std::chrono::milliseconds(1), std::chrono::milliseconds(100));
    return length_;
  }
  std::chrono::milliseconds length() const { return length_; }
  void startOver() { length_ = std::chrono::milliseconds(0); }

 private:
  EpollControl& control_;
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
  endPause(Event::kRead);
  endPause(Event::kWrite);
  fd_ = -1;
  writeInterest_ = false;
}

void EpollControl::setWriteInterest(bool wanted) {
  if (wanted == writeInterest_ || fd_ < 0) {
    return;
  }
  writeInterest_ = wanted;
  try {
    core_->setEvents(token_, events());
  } catch (const Exception&) {
    writeInterest_ = !wanted;
    throw;
  }
  endPause(Event::kWrite);
}

bool EpollControl::deliverRead() {
  if (paused(Event::kRead)) {
    return false;
  }
  deliver(Event::kRead);
  return true;
}

bool EpollControl::deliverWrite() {
  if (!writeInterest_) {
    return false;
  }
  deliver(Event::kWrite);
  return true;
}

void EpollControl::deliver(Event event) {
  const auto token = token_;
  const auto core = core_.get();  // outlives this control: a turn of it is running
  const bool deferred = runGuarded(
      handler_, event,
      [event, fd = fd_](FdEventHandler& handler) {
        event == Event::kRead ? handler.readFdEvent(fd) : handler.writeFdEvent(fd);
      },
      [fd = fd_](FdEventHandler& handler) { return handler.handleFdException(fd); });
  if (core->find(token) != this) {
    return;  // detached, and perhaps gone
  }
  if (deferred && (event == Event::kRead || writeInterest_)) {
    pause(event);
  } else if (pauseOf(event)) {
    endPause(event);
    core_->setEvents(token_, events());  // a callback within this one may have deferred it
  }
}

void EpollControl::pause(Event event) {
  auto& pause = pauseOf(event);
  if (!pause) {
    pause = std::make_unique<Pause>(*this);
  }
  core_->schedule(*pause, LoopCore::now() + pause->lengthen());
  core_->setEvents(token_, events());
}

void EpollControl::resume(Pause& pause) {
  try {
    core_->setEvents(token_, events());
  } catch (const Exception&) {
    core_->trySchedule(pause, LoopCore::now() + pause.length());
    throw;
  }
}

void EpollControl::endPause(Event event) noexcept {
  if (auto& pause = pauseOf(event)) {
    core_->cancel(*pause);
    pause->startOver();
  }
}

bool EpollControl::paused(Event event) const noexcept {
  const auto& pause = pauses_[static_cast<std::size_t>(event)];
  return pause && pause->queued();
}

/// The kernel reports hang-ups unasked; while reading is deferred it may do so once a pause, and
/// the descriptor stays in its set, where no other handler can attach it.
std::uint32_t EpollControl::events() const noexcept {
  if (paused(Event::kRead)) {
    return EPOLLONESHOT;
  }
  return writeInterest_ && !paused(Event::kWrite) ? EPOLLIN | EPOLLOUT : EPOLLIN;
}

}  // namespace Kelvo::Platform
