#include "Kelvo/Platform/EventLoop.h"

#include <algorithm>
#include <limits>

#include "Kelvo/Platform/EpollControl.h"
#include "Kelvo/Platform/LoopCore.h"
#include "Kelvo/Platform/LoopTimer.h"
#include "Kelvo/Platform/Running.h"

namespace Kelvo::Platform {

EventLoop::EventLoop() : core_(new LoopCore) {}

EventLoop::~EventLoop() = default;

EventLoop& EventLoop::current() {
  static thread_local EventLoop loop;
  return loop;
}

void EventLoop::run() {
  while (!core_->takeStop()) {
    core_->turn(-1);
  }
}

void EventLoop::stop() noexcept {
  core_->requestStop();
}

bool EventLoop::runOnce(std::chrono::milliseconds timeout) {
  using Count = std::chrono::milliseconds::rep;
  return core_->turn(
      static_cast<int>(std::clamp<Count>(timeout.count(), -1, std::numeric_limits<int>::max())));
}

int EventLoop::fd() const noexcept {
  return core_->fd();
}

bool EventLoop::dispatch() {
  return core_->turn(0);
}

Ptr<FdControl> getFdControl(FdEventHandler* handler) {
  return Ptr<FdControl>(new EpollControl(EventLoop::current().core_, *handler));
}

Ptr<Timer> getTimer(TimeoutHandler* handler, const FdEventHandler* unlessAttached) {
  return Ptr<Timer>(new LoopTimer(EventLoop::current().core_, *handler, unlessAttached));
}

// --- the handlers' own part in the contract: a dead handler is asked nothing ---

FdEventHandler::~FdEventHandler() {
  Running<FdEventHandler>::forget(this);
}

void FdEventHandler::writeFdEvent(int /*fd*/) {}

bool FdEventHandler::handleFdException(int /*fd*/) {
  return false;
}

TimeoutHandler::~TimeoutHandler() {
  Running<TimeoutHandler>::forget(this);
}

bool TimeoutHandler::handleTimeoutException() {
  return false;
}

}  // namespace Kelvo::Platform
