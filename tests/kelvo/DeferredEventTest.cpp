// Events that a handler defers, because it cannot deal with them now.

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <vector>

#include "tests/kelvo/Handlers.h"
#include "tests/support/Faults.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Faults::Call;

namespace {

using Times = std::vector<Clock::time_point>;

/// Turns the loop for that long, and tells how many turns that took.
int turnFor(std::chrono::milliseconds time) {
  const auto end = Clock::now() + time;
  int turns = 0;
  for (auto now = Clock::now(); now < end; now = Clock::now()) {
    loop().runOnce(std::chrono::ceil<std::chrono::milliseconds>(end - now));
    ++turns;
  }
  return turns;
}

/// That the rate of `times` has fallen as promised: gaps of at least 1, 2, 4 ... 100 ms.
void expectFallingRate(const Times& times, std::size_t first = 0) {
  auto pause = 1ms;
  for (std::size_t i = first + 1; i < times.size(); ++i) {
    EXPECT_GE(times[i] - times[i - 1], pause) << "callback " << i;
    pause = std::min<std::chrono::milliseconds>(2 * pause, 100ms);
  }
}

/// A handler whose socket stays ready for its event, which it defers each time.
class Stuck : public testing::Test {
 protected:
  explicit Stuck(bool writes) : writes_(writes) {
    onEvent() = [this](int) {
      times_.push_back(Clock::now());
      writes_ ? handler_.deferWriteEvent() : handler_.deferReadEvent();
    };
    if (writes_) {
      handler_.control->setWriteInterest(true);
    } else {
      rawSend(ends_.second.get(), "left unread");
    }
  }

  std::function<void(int)>& onEvent() { return writes_ ? handler_.onWrite : handler_.onRead; }
  int calls() const { return writes_ ? handler_.writes : handler_.reads; }

  void attachAnew() {
    handler_.control->attach(ends_.first.get());
    handler_.control->setWriteInterest(writes_);
  }

  void turnUntilCalls(int count) {
    ASSERT_TRUE(turnUntil([&] { return calls() >= count; }));
  }

  /// That its pauses are short again after `renew`, and the first call comes at once.
  void expectAFreshStart(const std::function<void()>& renew) {
    EXPECT_TRUE(onceWithin(50ms, [&] {
      turnUntilCalls(calls() + 8);
      renew();
      const auto first = times_.size();
      EXPECT_TRUE(loop().dispatch());
      EXPECT_EQ(times_.size(), first + 1);
      turnUntilCalls(calls() + 3);
      expectFallingRate(times_, first);
      return times_[first + 3] - times_[first];
    }));
  }

  const bool writes_;
  std::pair<Fd, Fd> ends_ = rawPair();
  Watcher handler_{ends_.first.get()};
  Times times_;
};

// --- events of either kind ---

class StuckHandler : public Stuck, public testing::WithParamInterface<bool> {
 protected:
  StuckHandler() : Stuck(GetParam()) {}
};

INSTANTIATE_TEST_SUITE_P(That, StuckHandler, testing::Bool(),
                         [](const auto& writes) { return writes.param ? "Writes" : "Reads"; });

TEST_P(StuckHandler, IsCalledAtAFallingRate) {
  const int turns = turnFor(500ms);

  expectFallingRate(times_);
  EXPECT_LE(calls(), 12);
  EXPECT_GE(calls(), 4);
  EXPECT_LE(turns, 40);
}

TEST_P(StuckHandler, StartsAfreshAfterAttachingAnew) {
  expectAFreshStart([this] { attachAnew(); });
}

TEST_P(StuckHandler, StartsAfreshAfterACallbackThatDefersNothing) {
  const auto deferring = onEvent();
  expectAFreshStart([&] {
    onEvent() = nullptr;
    turnUntilCalls(calls() + 1);
    for (int before = calls(), turn = 1; turn <= 32; ++turn) {
      EXPECT_TRUE(loop().dispatch());
      EXPECT_EQ(calls(), before + turn);
    }
    onEvent() = deferring;
  });
}

TEST_P(StuckHandler, MayBeDestroyedDuringAPause) {
  turnUntilCalls(6);
  handler_.control.reset();
  EXPECT_EQ(turnFor(40ms), 1);
}

TEST_P(StuckHandler, IsTriedAgainThoughTheKernelRefusedOnce) {
  turnUntilCalls(3);
  {
    const Faults::Fail fail(Call::kEpollCtl, ENOSPC, 1);
    EXPECT_EQ(thrownBy([] { turnFor(5s); }),
              "EventLoop: epoll_ctl failed: No space left on device");
  }
  turnUntilCalls(6);
}

// --- write events ---

class StuckWriter : public Stuck {
 protected:
  StuckWriter() : Stuck(true) {}

  void switchOffAndOn() {
    handler_.control->setWriteInterest(false);
    handler_.control->setWriteInterest(true);
  }
};

TEST_F(StuckWriter, IsNeverLeftAloneForLong) {
  turnUntilCalls(9);
  EXPECT_TRUE(onceWithin(140ms, [&] {
    turnUntilCalls(handler_.writes + 1);
    const auto pause = times_[times_.size() - 1] - times_[times_.size() - 2];
    EXPECT_GE(pause, 100ms);
    return pause;
  }));
}

TEST_F(StuckWriter, DoesNotMakeItsLoopReadableMeanwhile) {
  turnUntilCalls(7);
  EXPECT_FALSE(somethingIsDue());
  EXPECT_FALSE(loop().dispatch());
}

TEST_F(StuckWriter, StartsAfreshAfterItSwitchedItsInterestOffAndOn) {
  expectAFreshStart([this] { switchOffAndOn(); });
}

TEST_F(StuckWriter, DoublesItsPausesFromOneMillisecondOn) {
  turnUntilCalls(3);  // so that no attempt begins with the very first pause
  const auto pausesTake = [this](std::size_t count) {
    return [=] {
      switchOffAndOn();
      const auto first = times_.size();
      turnUntilCalls(handler_.writes + 5);
      return times_[first + count] - times_[first];
    };
  };
  EXPECT_TRUE(onceWithin(1800us, pausesTake(1)));
  EXPECT_TRUE(onceWithin(25ms, pausesTake(4)));
}

TEST_F(StuckWriter, StaysSilentWhileItsInterestIsOff) {
  turnUntilCalls(4);
  handler_.control->setWriteInterest(false);
  const int before = handler_.writes;
  EXPECT_EQ(turnFor(30ms), 1) << "woken for nothing";
  EXPECT_EQ(handler_.writes, before);
}

TEST_F(StuckWriter, GetsItsReadEventsAtOnce) {
  turnUntilCalls(8);
  const int before = handler_.writes;
  rawSend(ends_.second.get(), "x");
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(handler_.reads, 1);
  EXPECT_EQ(handler_.writes, before);
}

TEST_F(StuckWriter, MayDetachInTheCallbackAfterAPause) {
  handler_.onWrite = [this](int) {
    handler_.deferWriteEvent();
    if (handler_.writes == 5) {
      handler_.control->detach();
    }
  };
  turnUntilCalls(5);
  EXPECT_EQ(turnFor(20ms), 1);
}

TEST_F(StuckWriter, IsCalledAtOnceOnceItWantsToWriteAgain) {
  handler_.onWrite = [this](int) {
    handler_.deferWriteEvent();
    handler_.control->setWriteInterest(false);
  };
  EXPECT_TRUE(loop().dispatch());
  handler_.control->setWriteInterest(true);
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(handler_.writes, 2);
}

TEST_F(StuckWriter, IsNotCalledByTheTurnThatEndsAPause) {
  turnUntilCalls(3);
  EXPECT_FALSE(loop().runOnce(10s));
  EXPECT_EQ(handler_.writes, 3);
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(handler_.writes, 4);
}

TEST_F(StuckWriter, CausesNoTurnsOnceItsSocketHasFilled) {
  turnUntilCalls(4);
  setNonBlocking(ends_.first.get());
  while (::send(ends_.first.get(), "x", 1, MSG_NOSIGNAL) == 1) {
  }
  EXPECT_LE(turnFor(100ms), 2) << "the pause's end and the end of the time";
  EXPECT_EQ(handler_.writes, 4);
}

TEST_F(StuckWriter, KeepsItsPausesWhileItReads) {
  turnUntilCalls(6);
  const auto first = times_.size() - 1;
  handler_.onRead = [](int fd) { rawReceiveNow(fd); };
  while (handler_.writes < 9) {
    rawSend(ends_.second.get(), "x");
    loop().runOnce(5s);
  }
  for (auto at = first + 1; at < times_.size(); ++at) {
    EXPECT_GE(times_[at] - times_[at - 1], 32ms);
  }
}

TEST_F(StuckWriter, IsSlowedByAnExceptionThatItsHookDealtWith) {
  handler_.onWrite = [this](int) {
    handler_.deferWriteEvent();
    throw std::runtime_error("from a callback");
  };
  handler_.onException = [](int) { return true; };
  turnFor(100ms);
  EXPECT_LE(handler_.writes, 8);
}

TEST_F(StuckWriter, IsNotSlowedByADeferralOutsideOfItsCallbacks) {
  handler_.onWrite = nullptr;
  handler_.onRead = [this](int /*fd*/) { handler_.deferWriteEvent(); };
  rawSend(ends_.second.get(), "x");
  for (int turn = 1; turn <= 20; ++turn) {
    handler_.deferWriteEvent();
    ASSERT_TRUE(loop().dispatch());
    EXPECT_EQ(handler_.writes, turn);
  }
}

/// A writer with a record for each of its write events.
class BusyWriter : public testing::Test {
 protected:
  BusyWriter() { writer_.control->setWriteInterest(true); }

  std::pair<Fd, Fd> ends_ = rawPair();
  Watcher writer_{ends_.first.get()};
};

TEST_F(BusyWriter, WritesOneRecordAnEventAtFullSpeed) {
  writer_.onWrite = [](int fd) { rawSend(fd, "record"); };
  for (int round = 1; round <= 30; ++round) {
    ASSERT_TRUE(loop().dispatch());
    EXPECT_EQ(writer_.writes, round);
    EXPECT_EQ(rawReceiveNow(ends_.second.get()), "record");
  }
}

TEST_F(BusyWriter, IsNotSlowedIfItSwitchesItsInterestOff) {
  writer_.onWrite = [this](int) { writer_.control->setWriteInterest(false); };
  for (int round = 1; round <= 20; ++round) {
    writer_.control->setWriteInterest(true);
    ASSERT_TRUE(loop().dispatch()) << round;
  }
  EXPECT_EQ(turnFor(20ms), 1) << "woken for nothing";
}

TEST_F(BusyWriter, IsNotSlowedIfItAttachesAnew) {
  writer_.onWrite = [this](int fd) {
    writer_.control->attach(fd);
    writer_.control->setWriteInterest(true);
  };
  for (int round = 1; round <= 20; ++round) {
    ASSERT_TRUE(loop().dispatch()) << round;
    EXPECT_EQ(writer_.writes, round);
  }
}

// --- read events ---

class StuckReader : public Stuck {
 protected:
  StuckReader() : Stuck(false) {}
};

TEST_F(StuckReader, DoesNotSpinOnAHangUpThatTheKernelReportsUnasked) {
  ends_.second.reset();
  EXPECT_LE(turnFor(300ms), 30);
  EXPECT_LE(handler_.reads, 10);
}

TEST_F(StuckReader, IsNotCalledForAHangUpDuringAPause) {
  turnUntilCalls(8);
  ends_.second.reset();
  const bool called = loop().dispatch();
  EXPECT_EQ(called, handler_.reads > 8) << "the pause may have ended on a slow machine";
}

TEST_F(StuckReader, DoesNotSpinOnAHangUpWhileItsWriteInterestIsOn) {
  handler_.onWrite = [this](int) { handler_.deferWriteEvent(); };
  turnUntilCalls(1);
  handler_.control->setWriteInterest(true);
  ends_.second.reset();
  EXPECT_LE(turnFor(300ms), 60);
  EXPECT_LE(handler_.reads + handler_.writes, 22);
  EXPECT_GE(handler_.writes, 3) << "its write events come again with its read events";
}

TEST_F(StuckReader, StaysAttachedDuringAPause) {
  turnUntilCalls(6);
  Watcher other;
  EXPECT_EQ(thrownBy([&] { other.control->attach(ends_.first.get()); }),
            "EventLoop: epoll_ctl failed: File exists");
}

TEST_F(StuckReader, IsReadAtOnceAgainIfOnlyACallbackWithinItsCallbackDeferred) {
  handler_.onRead = [this](int) {
    if (handler_.reads % 2 == 1) {
      loop().dispatch();
    } else {
      handler_.deferReadEvent();
    }
  };
  for (int turn = 1; turn <= 20; ++turn) {
    ASSERT_TRUE(loop().dispatch());
    EXPECT_EQ(handler_.reads, 2 * turn);
  }
}

}  // namespace
