// Everything that callbacks may do, in random order and from inside one another. Each seed is one
// fixed story; the sanitizers watch over memory, and in the end the loop must serve as ever.

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <utility>

#include "tests/kelvo/Handlers.h"

namespace {

class Storm : public testing::TestWithParam<unsigned> {
 protected:
  static constexpr std::size_t kMany = 12;

  Storm() {
    for (auto& ends : pairs_) {
      ends = rawPair();
    }
  }

  unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
  std::size_t any() { return below(kMany); }

  void step() {
    ++steps_;
    (this->*kSteps[below(kSteps.size())])();
  }

  /// What a callback does: anything, and now and then it throws.
  void callback() {
    step();
    if (below(8) == 0) {
      throw std::runtime_error("from the storm");
    }
  }

  void makeWatcher() {
    auto watcher = std::make_unique<Watcher>();
    watcher->onRead = [this](int fd) {
      if (below(2) == 0) {
        rawReceiveNow(fd);
      }
      callback();
    };
    watcher->onWrite = [this](int) { callback(); };
    watcher->onException = [this](int) {
      step();
      return below(2) == 0;
    };
    watchers_[any()] = std::move(watcher);
  }

  void attach() {
    if (auto& watcher = watchers_[any()]) {
      thrownBy([&] { watcher->control->attach(pairs_[any()].first.get()); });  // or it is taken
    }
  }

  void detach() {
    if (auto& watcher = watchers_[any()]) {
      watcher->control->detach();
    }
  }

  void changeWriteInterest() {
    if (auto& watcher = watchers_[any()]) {
      watcher->control->setWriteInterest(below(2) == 0);
    }
  }

  void destroyWatcher() { watchers_[any()].reset(); }

  /// New sockets under the numbers of the old ones.
  void replaceSockets() {
    auto& ends = pairs_[any()];
    for (auto& watcher : watchers_) {
      if (watcher && watcher->control->fd() == ends.first.get()) {
        watcher->control->detach();
      }
    }
    ends.first.reset();
    ends.second.reset();
    ends = rawPair();
  }

  void send() { ::send(pairs_[any()].second.get(), "x", 1, MSG_NOSIGNAL | MSG_DONTWAIT); }

  void hangUp() { pairs_[any()].second.reset(); }

  void makeAlarm() {
    auto alarm = std::make_unique<Alarm>(watchers_[any()].get());
    alarm->onTimeout = [this] { callback(); };
    alarm->onException = [this] {
      step();
      return below(2) == 0;
    };
    alarm->timer->arm(below(3) * 0.0002);
    alarms_[any()] = std::move(alarm);
  }

  void changeAlarm() {
    auto& alarm = alarms_[any()];
    if (!alarm) {
      return;
    }
    switch (below(3)) {
      case 0:
        return alarm->timer->arm(0);
      case 1:
        return alarm->timer->disarm();
      default:
        alarm.reset();
    }
  }

  void turn() {
    if (depth_ == 4) {
      return;
    }
    ++depth_;
    try {
      loop().dispatch();
    } catch (const std::runtime_error&) {
      ++thrown_;
    }
    --depth_;
  }

  using Step = void (Storm::*)();
  static constexpr std::array<Step, 13> kSteps = {&Storm::makeWatcher,
                                                  &Storm::attach,
                                                  &Storm::attach,
                                                  &Storm::attach,
                                                  &Storm::detach,
                                                  &Storm::changeWriteInterest,
                                                  &Storm::destroyWatcher,
                                                  &Storm::replaceSockets,
                                                  &Storm::send,
                                                  &Storm::hangUp,
                                                  &Storm::makeAlarm,
                                                  &Storm::changeAlarm,
                                                  &Storm::turn};

  std::mt19937 random_{GetParam()};
  std::array<std::pair<Fd, Fd>, kMany> pairs_;
  std::array<std::unique_ptr<Watcher>, kMany> watchers_;
  std::array<std::unique_ptr<Alarm>, kMany> alarms_;
  int depth_ = 0;
  int steps_ = 0;
  int thrown_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Seeds, Storm, testing::Range(1U, 7U));

TEST_P(Storm, LeavesALoopThatServes) {
  while (steps_ < 4000) {
    step();
    turn();
  }
  for (std::size_t i = 0; i < kMany; ++i) {
    watchers_[i].reset();
    alarms_[i].reset();
  }
  EXPECT_GT(thrown_, 0);
  EXPECT_FALSE(loop().dispatch());
  EXPECT_FALSE(somethingIsDue());

  const auto ends = rawPair();
  Watcher watcher(ends.first.get());
  Alarm alarm;
  alarm.timer->arm(0);
  rawSend(ends.second.get(), "x");
  EXPECT_TRUE(turnUntil([&] { return watcher.reads > 0 && alarm.fired == 1; }));
}

}  // namespace
