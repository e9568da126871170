// The thread's loop: made by `current`, which finds it by a thread-specific key -> turned by `run`,
// `runOnce` or `dispatch` -> reached from other threads by `stop`, `post` and its remotes -> ended
// with the thread.
//
// The object is only the thread's handle: what turns is the core, which controls and timers share.
// So a forked child can be given a fresh core in the same object. The old one stays with it, as a
// turn of it may be under way.

#include "Kelvo/Platform/EventLoop.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <memory>
#include <new>
#include <utility>

#include "Kelvo/Exception.h"
#include "Kelvo/Platform/detail/LoopCore.h"
#include "Kelvo/Platform/detail/Mailbox.h"
#include "Kelvo/ThreadControl.h"

namespace Kelvo::Platform {

namespace {

// A thread-specific key and not a thread_local object: to register the latter's destructor the C
// library needs memory, and it ends the process if there is none. The key also leaves the main
// thread's loop in place for the destructors of static objects.
pthread_key_t makeThreadKey() {
  pthread_key_t key{};
  const auto atThreadEnd = [](void* loop) { delete static_cast<EventLoop*>(loop); };
  if (pthread_key_create(&key, atThreadEnd) != 0) {
    throw Exception("EventLoop: the process has no thread-specific key left", true);
  }
  return key;
}

pthread_key_t threadKey() {
  static const pthread_key_t key = makeThreadKey();
  return key;
}

}  // namespace

EventLoop::EventLoop() : core_(new LoopCore) {
  static std::atomic<bool> first{true};
  if (!first.exchange(false, std::memory_order_relaxed)) {
    ThreadControl::tsp_ = true;
  }
}

EventLoop::~EventLoop() {
  core_->mailbox()->close();
}

EventLoop& EventLoop::current() {
  auto* loop = static_cast<EventLoop*>(pthread_getspecific(threadKey()));
  if (loop == nullptr) {
    std::unique_ptr<EventLoop> made(new EventLoop);
    if (pthread_setspecific(threadKey(), made.get()) != 0) {
      throw std::bad_alloc();
    }
    loop = made.release();
  }
  return *loop;
}

void EventLoop::renewAfterFork() {
  auto* loop = static_cast<EventLoop*>(pthread_getspecific(threadKey()));
  if (loop != nullptr && !loop->core_->inOwnerProcess()) {
    Ptr<LoopCore> fresh(new LoopCore);
    loop->inherited_.push_back(loop->core_);
    loop->core_ = std::move(fresh);
  }
}

// --- turns ---

void EventLoop::run() {
  LoopCore& core = *core_;
  core.mailbox()->drainStopRequest();  // one that was made before
  while (!core.mailbox()->consumeStop()) {
    core.turn(-1);
  }
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

// --- from other threads ---

void EventLoop::stop() noexcept {
  core_->mailbox()->requestStop();
}

void EventLoop::post(std::function<void()> function) {
  if (!core_->mailbox()->post(std::move(function))) {
    core_->requireOwnerProcess();
  }
}

EventLoop::Remote EventLoop::remote() const {
  return Remote(core_->mailbox());
}

EventLoop::Remote::Remote(std::shared_ptr<Mailbox> mailbox) noexcept
    : mailbox_(std::move(mailbox)) {}

bool EventLoop::Remote::post(std::function<void()> function) const {
  return mailbox_->post(std::move(function));
}

bool EventLoop::Remote::stop() const noexcept {
  return mailbox_->stop();
}

}  // namespace Kelvo::Platform
