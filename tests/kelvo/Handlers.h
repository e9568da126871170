#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Kelvo/Exception.h"
#include "Kelvo/Platform/EventLoop.h"
#include "tests/support/Support.h"

// The handlers with which the base library is tested, and a few verbs.

/// A descriptor's handler that counts its callbacks and does in them what its test says. The
/// actions may destroy it.
class Watcher : public Kelvo::Platform::FdEventHandler {
 public:
  explicit Watcher(int fd = -1) : control(Kelvo::Platform::getFdControl(this)) {
    if (fd >= 0) {
      control->attach(fd);
    }
  }

  void readFdEvent(int fd) override {
    ++reads;
    act(onRead, fd);
  }

  void writeFdEvent(int fd) override {
    ++writes;
    act(onWrite, fd);
  }

  bool handleFdException(int fd) override {
    ++asked;
    const auto answer = onException;
    return answer ? answer(fd) : FdEventHandler::handleFdException(fd);
  }

  using FdEventHandler::deferReadEvent;
  using FdEventHandler::deferWriteEvent;

  int reads = 0;
  int writes = 0;
  int asked = 0;
  std::function<void(int)> onRead;
  std::function<void(int)> onWrite;
  std::function<bool(int)> onException;
  Kelvo::Ptr<Kelvo::Platform::FdControl> control;

 private:
  static void act(const std::function<void(int)>& action, int fd) {
    const auto copy = action;  // it may destroy its watcher
    if (copy) {
      copy(fd);
    }
  }
};

/// A timer's handler of the same kind.
class Alarm : public Kelvo::Platform::TimeoutHandler {
 public:
  explicit Alarm(const Kelvo::Platform::FdEventHandler* unlessAttached = nullptr)
      : timer(Kelvo::Platform::getTimer(this, unlessAttached)) {}

  void timeout() override {
    ++fired;
    const auto copy = onTimeout;
    if (copy) {
      copy();
    }
  }

  bool handleTimeoutException() override {
    ++asked;
    const auto answer = onException;
    return answer ? answer() : TimeoutHandler::handleTimeoutException();
  }

  int fired = 0;
  int asked = 0;
  std::function<void()> onTimeout;
  std::function<bool()> onException;
  Kelvo::Ptr<Kelvo::Platform::Timer> timer;
};

/// Many handlers whose descriptors are ready for reading all the time.
struct Crowd {
  explicit Crowd(int size) {
    for (int i = 0; i < size; ++i) {
      events.emplace_back(eventfd(1, EFD_CLOEXEC));
      watchers.push_back(std::make_unique<Watcher>(events.back().get()));
    }
  }

  std::vector<Fd> events;
  std::vector<std::unique_ptr<Watcher>> watchers;
};

inline Kelvo::Platform::EventLoop& loop() {
  return Kelvo::Platform::EventLoop::current();
}

inline bool readable(int fd, int waitMilliseconds = 0) {
  pollfd query{fd, POLLIN, 0};
  return ::poll(&query, 1, waitMilliseconds) == 1;
}

inline bool somethingIsDue() {
  return readable(loop().fd());
}

/// Lets the clock go on while the loop stands still, so that several timers become due at once.
inline void letPass(std::chrono::microseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  while (std::chrono::steady_clock::now() < end) {
  }
}

/// What a Kelvo::Exception thrown by `action` says; "<nothing thrown>" without one.
inline std::string thrownBy(const std::function<void()>& action) {
  try {
    action();
  } catch (const Kelvo::Exception& exception) {
    return exception.what();
  }
  return "<nothing thrown>";
}

/// Whether `measure` takes less than the limit at least once. A loaded machine is late for a while,
/// what is slow by itself is late every time.
inline bool onceWithin(std::chrono::nanoseconds limit,
                       const std::function<std::chrono::nanoseconds()>& measure) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(40);
  while (measure() >= limit) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
  }
  return true;
}
