// One turn: wait -> deliver each event of the batch.
//
//   a descriptor's event   look its registration up by token, read callback, look it up again,
//                          write callback
//   the mailbox's event    take a request to stop, run the functions that were posted
//   the timer's event      one timeout, and set the kernel's timer to the next one
//
// A callback may do anything: detach and destroy registrations, turn the loop itself, throw, fork.
// So nothing is held across one, and everything it may have changed is looked up after it. Tokens
// carry a generation, so one whose descriptor was closed and opened again is not found. Turns have
// numbers, so an outer turn sees that another one has run inside its callback, and drops the rest
// of its batch: the kernel reports it again. Timers that are armed during a turn queue after its
// mark. The kernel reports 64 descriptors at a time and takes turns among them, so after a full
// batch the mailbox and the timers are looked at unasked.
//
// A forked child shares the kernel's side with its parent. It may take its own side apart, which
// makes no system call; all else throws.

#include "Kelvo/Platform/detail/LoopCore.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "Kelvo/Exception.h"

namespace Kelvo::Platform {

namespace {

constexpr int kBatchSize = 64;

// Generations start at 1, so these two can be no registration's token.
constexpr LoopCore::Token kMailboxToken = 1;
constexpr LoopCore::Token kTimerToken = 2;

constexpr LoopCore::Time kDisarmed = LoopCore::Time::max();
constexpr LoopCore::Time kUnknown = LoopCore::Time::min();

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
    : epoll_(epoll_create1(EPOLL_CLOEXEC)),
      mailbox_(Mailbox::make()),
      timer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      programmed_(kDisarmed),
      readableFor_(kUnknown) {
  if (!control(fd(), EPOLL_CTL_ADD, mailbox_->fd(), EPOLLIN, kMailboxToken) ||
      !control(fd(), EPOLL_CTL_ADD, timer_.fd(), EPOLLIN, kTimerToken)) {
    throw systemError("epoll_ctl");
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
  bool mailboxSeen = false;
  bool timersSeen = false;
  for (int i = 0; i < count && isCurrentTurn(thisTurn); ++i) {
    const epoll_event& event = batch[static_cast<std::size_t>(i)];
    mailboxSeen |= event.data.u64 == kMailboxToken;
    timersSeen |= event.data.u64 == kTimerToken;
    dispatched |= deliver(event);
  }
  if (count < kBatchSize) {
    return dispatched;
  }
  // More is ready, perhaps these two with it.
  if (!mailboxSeen && isCurrentTurn(thisTurn)) {
    dispatched |= takeMail();
  }
  if (!timersSeen && isCurrentTurn(thisTurn)) {
    dispatched |= runDueTimer(now());
  }
  return dispatched;
}

bool LoopCore::deliver(const epoll_event& event) {
  const Token token = event.data.u64;
  if (token == kMailboxToken) {
    return takeMail();
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

/// A request to stop, and a batch of functions at most. What those post themselves is for a later
/// turn.
bool LoopCore::takeMail() {
  mailbox_->drainStopRequest();
  const auto thisTurn = turns_;
  bool called = false;
  auto left = std::min<std::size_t>(mailbox_->waiting(), kBatchSize);
  for (; left > 0 && isCurrentTurn(thisTurn); --left) {
    const auto first = mailbox_->takeFirst();
    called = true;
    first.front()();
  }
  return called;
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
  if (!control(fd(), EPOLL_CTL_MOD, fdOf(token), events, token)) {
    throw systemError("epoll_ctl");
  }
  slot.events = events;
}

void LoopCore::remove(Token token) {
  Registration* registration = find(token);
  if (registration == nullptr) {
    return;  // its owner closed the descriptor first, and the number serves another registration
  }
  slots_[static_cast<std::size_t>(fdOf(token))] = Slot{};
  if (inOwnerProcess()) {  // a child shares the set with its parent
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
    setting.it_value.tv_nsec = static_cast<long>((wanted % std::chrono::seconds(1)).count());
  }
  if (timerfd_settime(timer_.fd(), TFD_TIMER_ABSTIME, &setting, nullptr) != 0) {
    return false;
  }
  programmed_ = wanted;
  readableFor_ = kUnknown;
  return true;
}

}  // namespace Kelvo::Platform
