// One turn: wait -> deliver each event of the batch (read, then write) or run the timers that are
// due. Everything that a callback may have changed is looked up again after it: registrations by
// token, the turn by its number, timers one at a time.

#include "Kelvo/Platform/LoopCore.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "Kelvo/Exception.h"
#include "Kelvo/ThreadControl.h"

namespace Kelvo::Platform {

namespace {

constexpr int kBatchSize = 64;

// Generations start at 1, so these two can be no registration's token.
constexpr LoopCore::Token kWakeUpToken = 1;
constexpr LoopCore::Token kTimerToken = 2;

constexpr LoopCore::Time kDisarmed = LoopCore::Time::max();
constexpr LoopCore::Time kUnknown = LoopCore::Time::min();

std::atomic<unsigned> forks{0};
std::atomic<unsigned> loopsMade{0};

void countForksInChildren() {
  [[maybe_unused]] static const int registered =
      pthread_atfork(nullptr, nullptr, [] { forks.fetch_add(1, std::memory_order_relaxed); });
}

Exception systemError(const char* call) {
  const std::string reason = std::strerror(errno);
  return {"EventLoop: " + (call + (" failed: " + reason)), true};
}

LoopCore::Token tokenOf(std::uint32_t generation, int fd) {
  return (LoopCore::Token{generation} << 32) | static_cast<std::uint32_t>(fd);
}

int fdOf(LoopCore::Token token) {
  return static_cast<int>(token & 0xffffffffU);
}

std::uint32_t generationOf(LoopCore::Token token) {
  return static_cast<std::uint32_t>(token >> 32);
}

bool control(int epoll, int operation, int fd, std::uint32_t events, LoopCore::Token token) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = token;
  return epoll_ctl(epoll, operation, fd, &event) == 0;
}

}  // namespace

LoopCore::OwnedFd::OwnedFd(int fd) : fd_(fd) {
  if (fd < 0) {
    throw systemError("making a descriptor of its own");
  }
}

LoopCore::OwnedFd::~OwnedFd() {
  ::close(fd_);
}

LoopCore::LoopCore()
    : forksBefore_(forks.load(std::memory_order_relaxed)),
      epoll_(epoll_create1(EPOLL_CLOEXEC)),
      wakeUp_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      timer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      thread_(pthread_self()),
      programmed_(kDisarmed),
      readableFor_(kUnknown) {
  countForksInChildren();
  if (!control(fd(), EPOLL_CTL_ADD, wakeUp_.fd(), EPOLLIN, kWakeUpToken) ||
      !control(fd(), EPOLL_CTL_ADD, timer_.fd(), EPOLLIN, kTimerToken)) {
    throw systemError("epoll_ctl");
  }
  if (loopsMade.fetch_add(1, std::memory_order_relaxed) > 0) {
    ThreadControl::tsp_ = true;
  }
}

// --- a turn ---

bool LoopCore::turn(int timeoutMilliseconds) {
  requireOwnerProcess();
  programTimer();  // does nothing, unless the kernel refused it last time
  std::array<epoll_event, kBatchSize> batch;
  const int count = epoll_wait(fd(), batch.data(), kBatchSize, timeoutMilliseconds);
  if (count < 0) {
    if (errno == EINTR) {
      return false;
    }
    throw systemError("epoll_wait");
  }
  const auto thisTurn = ++turns_;
  timerMark_ = timers_.mark();
  bool dispatched = false;
  bool timersSeen = false;
  for (int i = 0; i < count && isCurrentTurn(thisTurn); ++i) {
    const epoll_event& event = batch[static_cast<std::size_t>(i)];
    timersSeen |= event.data.u64 == kTimerToken;
    dispatched |= deliver(event);
  }
  if (count == kBatchSize && isCurrentTurn(thisTurn)) {  // more is ready, these two perhaps with it
    drainStopRequest();
    dispatched |= !timersSeen && runDueTimer(now());
  }
  return dispatched;
}

bool LoopCore::deliver(const epoll_event& event) {
  const Token token = event.data.u64;
  if (token == kWakeUpToken) {
    drainStopRequest();
    return false;
  }
  if (token == kTimerToken) {
    programmed_ = kUnknown;
    readableFor_ = now();  // until it is set again
    return runDueTimer(readableFor_);
  }
  const auto thisTurn = turns_;
  bool dispatched = false;
  if ((event.events & (EPOLLIN | EPOLLERR | EPOLLHUP)) != 0) {
    if (Registration* registration = find(token)) {
      dispatched |= registration->deliverRead();
    }
  }
  if ((event.events & EPOLLOUT) != 0 && isCurrentTurn(thisTurn)) {
    if (Registration* registration = find(token)) {
      dispatched |= registration->deliverWrite();
    }
  }
  return dispatched;
}

/// Makes one callback at most. The next timer waits for the next turn, which asks the kernel first:
/// a callback may wait for what only another one of this thread can do.
bool LoopCore::runDueTimer(Time time) {
  bool called = false;
  try {
    while (!called) {
      TimerQueue::Entry* due = timers_.takeDue(time, timerMark_);
      if (due == nullptr) {
        break;
      }
      called = due->expire();
    }
  } catch (...) {
    programTimer();
    throw;
  }
  programTimer();
  return called;
}

// From another thread the request travels through the descriptor alone. A flag beside it could be
// seen first, and the loop's thread could end, and the loop with it, while this call still uses it.
void LoopCore::requestStop() noexcept {
  if (!inOwnerProcess()) {
    return;  // a signal handler that a forked child has inherited: the parent goes on
  }
  const int callersErrno = errno;
  if (pthread_equal(pthread_self(), thread_) != 0) {
    stop_.store(true, std::memory_order_relaxed);
  }
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(wakeUp_.fd(), &one, sizeof one);
  errno = callersErrno;
}

void LoopCore::drainStopRequest() noexcept {
  std::uint64_t requests = 0;
  if (inOwnerProcess() && ::read(wakeUp_.fd(), &requests, sizeof requests) > 0) {
    stop_.store(true, std::memory_order_relaxed);
  }
}

bool LoopCore::consumeStop() noexcept {
  if (!stop_.load(std::memory_order_relaxed)) {
    return false;
  }
  drainStopRequest();  // the same request, if it has not woken the loop yet
  stop_.store(false, std::memory_order_relaxed);
  return true;
}

bool LoopCore::inOwnerProcess() const noexcept {
  return forks.load(std::memory_order_relaxed) == forksBefore_;
}

void LoopCore::requireOwnerProcess() const {
  if (!inOwnerProcess()) {
    throw Exception(
        "EventLoop: this loop belongs to the parent process; a forked child cannot use it", false);
  }
}

/// Whether that turn goes on after a callback: not if another one has been made inside the
/// callback, and not in a child that the callback has forked.
bool LoopCore::isCurrentTurn(std::uint64_t turn) const {
  requireOwnerProcess();
  return turns_ == turn;
}

// --- registrations ---

LoopCore::Token LoopCore::add(int fd, Registration& registration) {
  requireOwnerProcess();
  if (++lastGeneration_ == 0) {
    lastGeneration_ = 1;
  }
  const Token token = tokenOf(lastGeneration_, fd);
  if (!control(epoll_.fd(), EPOLL_CTL_ADD, fd, EPOLLIN, token)) {
    throw systemError("epoll_ctl");
  }
  try {
    claimSlot(static_cast<std::size_t>(fd), registration);
  } catch (...) {
    control(epoll_.fd(), EPOLL_CTL_DEL, fd, 0, token);
    throw;
  }
  notifyWatchers(registration.handler(), +1);
  return token;
}

void LoopCore::claimSlot(std::size_t index, Registration& registration) {
  if (slots_.size() <= index) {
    slots_.resize(index + 1);
  }
  if (const Registration* closed = slots_[index].registration) {
    notifyWatchers(closed->handler(), -1);  // its owner has closed the descriptor and not detached
  }
  slots_[index] = Slot{lastGeneration_, &registration, EPOLLIN};
}

void LoopCore::setEvents(Token token, std::uint32_t events) {
  requireOwnerProcess();
  if (find(token) == nullptr) {
    return;  // the number has come to serve another registration
  }
  Slot& slot = slots_[static_cast<std::size_t>(fdOf(token))];
  if (slot.events == events) {
    return;
  }
  const int operation = slot.events == 0 ? EPOLL_CTL_ADD
                        : events == 0    ? EPOLL_CTL_DEL
                                         : EPOLL_CTL_MOD;
  if (!control(fd(), operation, fdOf(token), events, token)) {
    throw systemError("epoll_ctl");
  }
  slot.events = events;
}

void LoopCore::remove(Token token) {
  Registration* registration = find(token);
  if (registration == nullptr) {
    return;  // its owner closed the descriptor first, and the number serves another registration
  }
  const Slot slot = std::exchange(slots_[static_cast<std::size_t>(fdOf(token))], Slot{});
  if (slot.events != 0 && inOwnerProcess()) {  // a child shares the set with its parent
    control(fd(), EPOLL_CTL_DEL, fdOf(token), 0, token);
  }
  notifyWatchers(registration->handler(), -1);
}

LoopCore::Registration* LoopCore::find(Token token) const noexcept {
  const auto index = static_cast<std::size_t>(fdOf(token));
  if (index >= slots_.size() || slots_[index].generation != generationOf(token)) {
    return nullptr;
  }
  return slots_[index].registration;
}

int LoopCore::watch(const FdEventHandler* handler, AttachmentWatcher& watcher) {
  watchers_.emplace(handler, &watcher);
  int attached = 0;
  for (const Slot& slot : slots_) {
    attached += slot.registration != nullptr && slot.registration->handler() == handler ? 1 : 0;
  }
  return attached;
}

void LoopCore::unwatch(const FdEventHandler* handler, AttachmentWatcher& watcher) noexcept {
  auto [at, end] = watchers_.equal_range(handler);
  for (; at != end; ++at) {
    if (at->second == &watcher) {
      watchers_.erase(at);
      return;
    }
  }
}

void LoopCore::notifyWatchers(const FdEventHandler* handler, int by) {
  auto [at, end] = watchers_.equal_range(handler);
  for (; at != end; ++at) {
    at->second->attachmentsChanged(by);
  }
}

// --- timers ---

LoopCore::Time LoopCore::now() noexcept {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

void LoopCore::schedule(TimerQueue::Entry& entry, Time deadline) {
  requireOwnerProcess();
  if (!trySchedule(entry, deadline)) {
    throw systemError("timerfd_settime");
  }
}

bool LoopCore::trySchedule(TimerQueue::Entry& entry, Time deadline) noexcept {
  timers_.insert(entry, deadline);
  return programTimer();
}

void LoopCore::cancel(TimerQueue::Entry& entry) noexcept {
  timers_.remove(entry);
  programTimer();  // left as it was, it would only wake the loop once for nothing
}

/// Lets the kernel's timer expire with the first of the queue.
bool LoopCore::programTimer() noexcept {
  const Time wanted = timers_.earliest().value_or(kDisarmed);
  if (wanted == programmed_ || wanted <= readableFor_ || !inOwnerProcess()) {
    return true;
  }
  itimerspec setting{};
  if (wanted != kDisarmed) {
    setting.it_value.tv_sec = std::chrono::duration_cast<std::chrono::seconds>(wanted).count();
    setting.it_value.tv_nsec = (wanted % std::chrono::seconds(1)).count();
  }
  if (timerfd_settime(timer_.fd(), TFD_TIMER_ABSTIME, &setting, nullptr) != 0) {
    return false;
  }
  programmed_ = wanted;
  readableFor_ = kUnknown;
  return true;
}

}  // namespace Kelvo::Platform
