#include "Kelvo/Platform/EventLoop.h"

#include <pthread.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <new>
#include <utility>

#include "Kelvo/Exception.h"
#include "Kelvo/Platform/CallbackFrame.h"
#include "Kelvo/Platform/EpollControl.h"
#include "Kelvo/Platform/LoopCore.h"
#include "Kelvo/Platform/LoopTimer.h"

namespace Kelvo::Platform {

namespace {

pthread_key_t makeThreadKey(void (*atThreadEnd)(void*)) {
  pthread_key_t key{};
  if (pthread_key_create(&key, atThreadEnd) != 0) {
    throw Exception("EventLoop: the process has no thread-specific key left", true);
  }
  return key;
}

}  // namespace

EventLoop::EventLoop() : core_(new LoopCore) {}

EventLoop::~EventLoop() = default;

// A thread-specific key and not a thread_local object: to register the latter's destructor the C
// library needs memory, and it ends the process if there is none. The key also leaves the main
// thread's loop in place for the destructors of static objects.
EventLoop& EventLoop::current() {
  static const pthread_key_t key =
      makeThreadKey([](void* loop) { delete static_cast<EventLoop*>(loop); });
  auto* loop = static_cast<EventLoop*>(pthread_getspecific(key));
  if (loop == nullptr) {
    std::unique_ptr<EventLoop> made(new EventLoop);
    if (pthread_setspecific(key, made.get()) != 0) {
      throw std::bad_alloc();
    }
    loop = made.release();
  }
  return *loop;
}

void EventLoop::run() {
  core_->drainStopRequest();  // one that was called before
  while (!core_->consumeStop()) {
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
  CallbackFrame<FdEventHandler>::forget(this);
}

void FdEventHandler::keepWhileRunning(std::shared_ptr<const void> owner) noexcept {
  CallbackFrame<FdEventHandler>::keep(this, std::move(owner));
}

void FdEventHandler::deferReadEvent() noexcept {
  CallbackFrame<FdEventHandler>::defer(this, Event::kRead);
}

void FdEventHandler::deferWriteEvent() noexcept {
  CallbackFrame<FdEventHandler>::defer(this, Event::kWrite);
}

void FdEventHandler::writeFdEvent(int /*fd*/) {}

bool FdEventHandler::handleFdException(int /*fd*/) {
  return false;
}

TimeoutHandler::~TimeoutHandler() {
  CallbackFrame<TimeoutHandler>::forget(this);
}

bool TimeoutHandler::handleTimeoutException() {
  return false;
}

}  // namespace Kelvo::Platform
