// Callbacks: nested turns, and exceptions out of them.

#include <gtest/gtest.h>
#include <pthread.h>

#include <map>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/kelvo/Handlers.h"

namespace {

/// Two watched sockets, both ready; each handler takes its record and leaves the rest to the test.
class Callback : public testing::Test {
 protected:
  Callback() {
    a_.onRead = [](int fd) { rawReceiveNow(fd); };
    b_.onRead = a_.onRead;
  }

  void makeReady() {
    rawSend(endsA_.second.get(), "a");
    rawSend(endsB_.second.get(), "b");
  }

  void bothOnRead(const std::function<void()>& action) {
    a_.onRead = [action](int fd) {
      rawReceiveNow(fd);
      action();
    };
    b_.onRead = a_.onRead;
  }

  void bothOnException(const std::function<bool(int)>& answer) {
    a_.onException = answer;
    b_.onException = answer;
  }

  std::pair<Fd, Fd> endsA_ = rawPair();
  std::pair<Fd, Fd> endsB_ = rawPair();
  Watcher a_{endsA_.first.get()};
  Watcher b_{endsB_.first.get()};
};

[[noreturn]] void fail() {
  throw std::runtime_error("from a callback");
}

/// What an exception says that is being handled.
std::string currentText() {
  try {
    throw;
  } catch (const std::exception& exception) {
    return exception.what();
  }
}

// --- nested turns ---

TEST_F(Callback, MayRunATurnOfTheSameLoopWhoseEventsAreNotRepeated) {
  bothOnRead([] { loop().dispatch(); });
  makeReady();
  EXPECT_TRUE(loop().dispatch());

  EXPECT_EQ(a_.reads, 1);
  EXPECT_EQ(b_.reads, 1);
}

TEST_F(Callback, LosesNoEventOfATurnThatItOvertook) {
  int served = 0;
  bothOnRead([&] {
    if (++served == 1) {
      a_.control->setWriteInterest(true);
      a_.onWrite = [&](int) { a_.control->setWriteInterest(false); };
      loop().dispatch();
    }
  });
  makeReady();
  turnUntilIdle();

  EXPECT_EQ(served, 2);
  EXPECT_EQ(a_.writes, 1);
}

TEST_F(Callback, EndsTheOvertakenTurnForItsOwnWriteEventToo) {
  std::string calls;
  bool nested = false;
  a_.control->setWriteInterest(true);
  a_.onRead = [&](int fd) {
    calls += 'r';
    rawReceiveNow(fd);
    if (!std::exchange(nested, true)) {
      loop().dispatch();
    }
  };
  a_.onWrite = [&](int) { calls += 'w'; };
  rawSend(endsA_.second.get(), "x");
  loop().dispatch();

  EXPECT_EQ(calls, "rw");
}

TEST_F(Callback, OvertakesATurnEvenWithOneThatFindsNothing) {
  // The first one called takes both records, so the nested turn is empty and the other's event,
  // which the kernel reported before, is stale.
  a_.onRead = [&](int) {
    rawReceiveNow(endsA_.first.get());
    rawReceiveNow(endsB_.first.get());
    EXPECT_FALSE(loop().dispatch());
  };
  b_.onRead = a_.onRead;
  makeReady();
  loop().dispatch();

  EXPECT_EQ(a_.reads + b_.reads, 1);
}

TEST_F(Callback, MayDestroyTheOuterCallbacksHandlerInANestedTurn) {
  auto mortal = std::make_unique<Watcher>();
  a_.control->detach();
  mortal->control->attach(endsA_.first.get());
  mortal->onRead = [&](int fd) {
    rawReceiveNow(fd);
    loop().dispatch();
  };
  b_.onRead = [&](int fd) {
    rawReceiveNow(fd);
    mortal.reset();
  };
  makeReady();
  loop().dispatch();

  turnUntilIdle();
  EXPECT_EQ(mortal, nullptr);
  EXPECT_EQ(b_.reads, 1);
}

TEST_F(Callback, MayRunATurnFromATimer) {
  Alarm outer;
  Alarm inner;
  outer.onTimeout = [] { loop().dispatch(); };
  outer.timer->arm(0);
  inner.timer->arm(0);
  letPass(std::chrono::microseconds(100));
  turnUntilIdle();

  EXPECT_EQ(outer.fired, 1);
  EXPECT_EQ(inner.fired, 1);
}

TEST_F(Callback, EndsTheOvertakenTurnForOtherTimersToo) {
  Alarm outer;
  Alarm failing;
  Alarm last;
  outer.onTimeout = [] { EXPECT_THROW(loop().dispatch(), std::runtime_error); };
  failing.onTimeout = fail;
  outer.timer->arm(0);
  failing.timer->arm(0);
  last.timer->arm(0);
  letPass(std::chrono::microseconds(100));

  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(last.fired, 0);
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(last.fired, 1);
}

// --- owners that drop a handler whose callback runs ---

/// An owner of a watcher on the first socket, which drops it at a callback's command.
class OwnedCallback : public Callback {
 protected:
  OwnedCallback() {
    a_.control->detach();
    owned_->control->attach(endsA_.first.get());
    gone_ = owned_;
  }

  void drop() {
    auto& handler = *owned_;
    handler.keepWhileRunning(std::move(owned_));
  }

  /// What the handler's own callback sees after `action`.
  void onRead(const std::function<void()>& action) {
    owned_->onRead = [this, action](int fd) {
      rawReceiveNow(fd);
      action();
      alive_ = !gone_.expired();
    };
  }

  std::shared_ptr<Watcher> owned_ = std::make_shared<Watcher>();
  std::weak_ptr<Watcher> gone_;
  bool alive_ = false;
};

TEST_F(OwnedCallback, KeepsItsHandlerUntilItReturns) {
  onRead([this] { drop(); });
  makeReady();
  EXPECT_TRUE(loop().dispatch());

  EXPECT_TRUE(alive_);
  EXPECT_TRUE(gone_.expired());
  EXPECT_EQ(b_.reads, 1);
  rawSend(endsA_.second.get(), "a");
  EXPECT_FALSE(loop().dispatch());
}

TEST_F(OwnedCallback, IsNotNeededBetweenCallbacks) {
  drop();
  EXPECT_TRUE(gone_.expired());
}

TEST_F(OwnedCallback, KeepsTheFirstOwnerOnly) {
  auto second = std::make_shared<int>(0);
  const std::weak_ptr<int> secondGone = second;
  bool secondKept = true;
  onRead([&] {
    auto& handler = *owned_;
    drop();
    handler.keepWhileRunning(std::move(second));
    secondKept = !secondGone.expired();
  });
  makeReady();
  EXPECT_TRUE(loop().dispatch());

  EXPECT_TRUE(alive_);
  EXPECT_TRUE(gone_.expired());
  EXPECT_FALSE(secondKept);
}

TEST_F(OwnedCallback, KeepsItsHandlerInAWriteEventToo) {
  owned_->onWrite = [this](int) {
    drop();
    alive_ = !gone_.expired();
  };
  owned_->control->setWriteInterest(true);
  EXPECT_TRUE(loop().dispatch());

  EXPECT_TRUE(alive_);
  EXPECT_TRUE(gone_.expired());
}

TEST_F(OwnedCallback, KeepsItsHandlerThatATurnInsideItDropped) {
  onRead([this] {
    rawSend(endsB_.second.get(), "b");
    loop().dispatch();
  });
  b_.onRead = [this](int fd) {
    rawReceiveNow(fd);
    drop();
  };
  rawSend(endsA_.second.get(), "a");
  turnUntilIdle();

  EXPECT_TRUE(alive_);
  EXPECT_TRUE(gone_.expired());
}

TEST_F(OwnedCallback, KeepsItsHandlerUntilTheOutermostOneReturns) {
  int depth = 0;
  bool aliveInside = false;
  onRead([&] {
    if (++depth == 1) {
      rawSend(endsA_.second.get(), "again");
      loop().dispatch();
    } else {
      drop();
      aliveInside = !gone_.expired();
    }
  });
  makeReady();
  turnUntilIdle();

  EXPECT_EQ(depth, 2);
  EXPECT_TRUE(aliveInside);
  EXPECT_TRUE(alive_) << "after the inner callback";
  EXPECT_TRUE(gone_.expired());
}

TEST_F(OwnedCallback, KeepsItsHandlerForTheHookOfItsException) {
  onRead([this] {
    drop();
    fail();
  });
  int asked = 0;
  owned_->onException = [&](int) {
    ++asked;
    return true;
  };
  makeReady();
  EXPECT_TRUE(loop().dispatch());

  EXPECT_EQ(asked, 1);
  EXPECT_TRUE(gone_.expired());
}

TEST_F(OwnedCallback, LetsItsHandlerGoWhenItsExceptionLeaves) {
  onRead([this] {
    drop();
    fail();
  });
  rawSend(endsA_.second.get(), "a");
  EXPECT_THROW(loop().dispatch(), std::runtime_error);

  EXPECT_TRUE(gone_.expired());
  EXPECT_FALSE(somethingIsDue());
}

TEST_F(OwnedCallback, KeepsNoHandlerOtherThanItsOwn) {
  b_.onRead = [this](int fd) {
    rawReceiveNow(fd);
    drop();
    alive_ = !gone_.expired();
  };
  rawSend(endsB_.second.get(), "b");
  EXPECT_TRUE(loop().dispatch());

  EXPECT_FALSE(alive_);
}

TEST_F(OwnedCallback, HasEndedForTheDestructorsOfWhatItKept) {
  struct Tail {
    ~Tail() { loop().dispatch(); }
  };
  onRead([this] { drop(); });
  auto* const watcher = owned_.get();
  owned_ = std::shared_ptr<Watcher>(
      watcher, [kept = owned_, tail = std::make_shared<Tail>()](Watcher* /*handler*/) {});
  makeReady();
  turnUntilIdle();

  EXPECT_TRUE(gone_.expired());
  EXPECT_EQ(b_.reads, 1);
}

// --- exceptions ---

TEST_F(Callback, ShowsItsExceptionToTheHookInsideTheCatch) {
  std::map<int, std::string> seen;
  bothOnRead(fail);
  bothOnException([&](int fd) {
    seen[fd] = currentText();
    return true;
  });
  makeReady();

  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(seen, (std::map<int, std::string>{{endsA_.first.get(), "from a callback"},
                                              {endsB_.first.get(), "from a callback"}}));
}

TEST_F(Callback, LetsItsWriteEventFollowIfTheHookDealtWithTheReadsException) {
  a_.onRead = [](int) { fail(); };
  a_.onWrite = a_.onRead;
  std::vector<int> seen;
  a_.onException = [&](int fd) {
    seen.push_back(fd);
    return true;
  };
  a_.control->setWriteInterest(true);
  rawSend(endsA_.second.get(), "x");

  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(a_.writes, 1);
  EXPECT_EQ(seen, std::vector<int>(2, endsA_.first.get()));
}

TEST_F(Callback, LetsItsExceptionLeaveEveryWayOfTurningTheLoop) {
  a_.onRead = [](int) { fail(); };
  rawSend(endsA_.second.get(), "x");

  EXPECT_THROW(loop().run(), std::runtime_error);
  EXPECT_THROW(loop().runOnce(std::chrono::seconds(1)), std::runtime_error);
  EXPECT_THROW(loop().dispatch(), std::runtime_error);
  EXPECT_EQ(a_.asked, 3);
}

TEST_F(Callback, LosesNoOtherEventWhenItsExceptionLeaves) {
  bothOnRead(fail);
  Alarm alarm;
  alarm.timer->arm(0);
  letPass(std::chrono::microseconds(100));
  makeReady();
  int thrown = 0;
  for (int turn = 0; turn < 3; ++turn) {
    try {
      loop().dispatch();
    } catch (const std::runtime_error&) {
      ++thrown;
    }
  }

  EXPECT_EQ(a_.reads, 1);
  EXPECT_EQ(b_.reads, 1);
  EXPECT_EQ(alarm.fired, 1);
  EXPECT_EQ(thrown, 2);
  EXPECT_FALSE(somethingIsDue());
}

TEST_F(Callback, LetsAnExceptionOfTheHookLeaveInstead) {
  a_.onRead = [](int) { fail(); };
  a_.onException = [](int) -> bool { throw std::logic_error("from the hook"); };
  rawSend(endsA_.second.get(), "x");

  EXPECT_THROW(loop().dispatch(), std::logic_error);
}

TEST_F(Callback, MayDestroyItsHandlerInTheHook) {
  a_.control->detach();
  auto mortal = std::make_unique<Watcher>(endsA_.first.get());
  mortal->onRead = [](int) { fail(); };
  mortal->onException = [&](int) {
    mortal.reset();
    return true;
  };
  makeReady();

  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(mortal, nullptr);
  EXPECT_EQ(b_.reads, 1);
}

TEST_F(Callback, IsNotConfusedByANewHandlerAtADeadOnesAddress) {
  a_.control->detach();
  alignas(Watcher) unsigned char memory[sizeof(Watcher)];
  auto* first = new (memory) Watcher(endsA_.first.get());
  Watcher* second = nullptr;
  first->onRead = [&](int) {
    first->~Watcher();
    second = new (memory) Watcher;
    second->onException = [](int) { return true; };
    fail();
  };
  rawSend(endsA_.second.get(), "x");

  EXPECT_THROW(loop().dispatch(), std::runtime_error);
  EXPECT_EQ(second->asked, 0);
  EXPECT_FALSE(loop().dispatch());
  second->~Watcher();
}

TEST_F(Callback, IsNotAskedIfItsHandlerDiedInATurnWithinTheTurn) {
  a_.control->detach();
  int asked = 0;
  int depth = 0;
  auto mortal = std::make_unique<Watcher>(endsA_.first.get());
  mortal->onException = [&](int) {
    ++asked;
    return true;
  };
  mortal->onRead = [&](int) {
    if (++depth == 1) {
      loop().dispatch();
      fail();
    }
    mortal.reset();
  };
  rawSend(endsA_.second.get(), "x");

  EXPECT_THROW(loop().dispatch(), std::runtime_error);
  EXPECT_EQ(depth, 2);
  EXPECT_EQ(asked, 0);
}

TEST_F(Callback, IsAskedThoughAnotherHandlerDiedMeanwhile) {
  auto bystander = std::make_unique<Watcher>();
  a_.onRead = [&](int) {
    bystander.reset();
    fail();
  };
  a_.onException = [](int) { return true; };
  rawSend(endsA_.second.get(), "x");

  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(a_.asked, 1);
}

TEST_F(Callback, MayEndItsThreadWithoutBeingAskedAboutAnException) {
  int asked = 0;
  std::thread([&] {
    Watcher watcher(endsA_.second.get());
    watcher.onRead = [](int /*fd*/) { pthread_exit(nullptr); };
    watcher.onException = [&](int /*fd*/) {
      ++asked;
      return true;
    };
    rawSend(endsA_.first.get(), "x");
    loop().run();
  }).join();
  EXPECT_EQ(asked, 0);
}

// --- exceptions of timers ---

TEST_F(Callback, LetsTheOtherTimersFireIfTheHookDealtWithIt) {
  std::vector<std::string> seen;
  Alarm alarms[2];
  for (auto& alarm : alarms) {
    alarm.onTimeout = fail;
    alarm.onException = [&] {
      seen.push_back(currentText());
      return true;
    };
    alarm.timer->arm(0);
  }
  letPass(std::chrono::microseconds(100));

  EXPECT_TRUE(loop().dispatch());
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(seen, std::vector<std::string>(2, "from a callback"));
}

TEST_F(Callback, LosesNoOtherTimerWhenATimersExceptionLeaves) {
  Alarm alarms[3];
  for (auto& alarm : alarms) {
    alarm.onTimeout = fail;
  }
  alarms[0].timer->arm(0);
  alarms[1].timer->arm(0);
  alarms[2].timer->arm(0.005);
  letPass(std::chrono::microseconds(100));

  for (auto& alarm : alarms) {
    EXPECT_THROW(turnUntil([] { return false; }), std::runtime_error);
    EXPECT_EQ(alarm.fired, 1);
    EXPECT_EQ(alarm.asked, 1);
  }
  EXPECT_FALSE(somethingIsDue());
  EXPECT_FALSE(loop().dispatch());
  EXPECT_FALSE(somethingIsDue());
}

TEST_F(Callback, IsNotAskedAboutATimersExceptionIfTheHandlerDied) {
  int asked = 0;
  auto mortal = std::make_unique<Alarm>();
  mortal->onException = [&] {
    ++asked;
    return true;
  };
  mortal->onTimeout = [&] {
    mortal.reset();
    fail();
  };
  mortal->timer->arm(0);

  EXPECT_THROW(loop().runOnce(std::chrono::seconds(1)), std::runtime_error);
  EXPECT_EQ(asked, 0);
}

}  // namespace
