// Events that a handler defers, because it cannot deal with them now.

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
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

// --- write events ---

class StuckWriter : public testing::Test {
 protected:
  StuckWriter() {
    writer_.onWrite = [this](int) {
      times_.push_back(Clock::now());
      writer_.deferWriteEvent();
    };
    writer_.control->setWriteInterest(true);
  }

  void turnUntilWrites(int count) {
    ASSERT_TRUE(turnUntil([&] { return writer_.writes >= count; }));
  }

  std::pair<Fd, Fd> ends_ = rawPair();
  Watcher writer_{ends_.first.get()};
  Times times_;
};

TEST_F(StuckWriter, IsCalledAtAFallingRate) {
  const int turns = turnFor(500ms);

  expectFallingRate(times_);
  EXPECT_LE(writer_.writes, 12);
  EXPECT_GE(writer_.writes, 4);
  EXPECT_LE(turns, 40);
}

TEST_F(StuckWriter, IsNeverLeftAloneForLong) {
  turnUntilWrites(9);
  EXPECT_TRUE(onceWithin(140ms, [&] {
    turnUntilWrites(writer_.writes + 1);
    const auto pause = times_[times_.size() - 1] - times_[times_.size() - 2];
    EXPECT_GE(pause, 100ms);
    return pause;
  }));
}

TEST_F(StuckWriter, DoesNotMakeItsLoopReadableMeanwhile) {
  turnUntilWrites(7);
  EXPECT_FALSE(somethingIsDue());
  EXPECT_FALSE(loop().dispatch());
}

TEST_F(StuckWriter, IsCalledAtOnceAfterItSwitchedItsInterestOffAndOn) {
  turnUntilWrites(8);
  writer_.control->setWriteInterest(false);
  writer_.control->setWriteInterest(true);
  const int before = writer_.writes;
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(writer_.writes, before + 1);
}

TEST_F(StuckWriter, StartsWithShortPausesAgainAfterItSwitchedItsInterestOffAndOn) {
  EXPECT_TRUE(onceWithin(50ms, [&] {
    turnUntilWrites(writer_.writes + 8);
    writer_.control->setWriteInterest(false);
    writer_.control->setWriteInterest(true);
    const auto first = times_.size();
    turnUntilWrites(writer_.writes + 4);
    expectFallingRate(times_, first);
    return times_[first + 3] - times_[first];
  }));
}

TEST_F(StuckWriter, DoublesItsPausesFromOneMillisecondOn) {
  turnUntilWrites(3);  // so that no attempt begins with the very first pause
  const auto pausesTake = [this](std::size_t count) {
    return [=] {
      writer_.control->setWriteInterest(false);
      writer_.control->setWriteInterest(true);
      const auto first = times_.size();
      turnUntilWrites(writer_.writes + 5);
      return times_[first + count] - times_[first];
    };
  };
  EXPECT_TRUE(onceWithin(1800us, pausesTake(1)));
  EXPECT_TRUE(onceWithin(25ms, pausesTake(4)));
}

TEST_F(StuckWriter, StaysSilentWhileItsInterestIsOff) {
  turnUntilWrites(4);
  writer_.control->setWriteInterest(false);
  const int before = writer_.writes;
  EXPECT_EQ(turnFor(30ms), 1) << "woken for nothing";
  EXPECT_EQ(writer_.writes, before);
}

TEST_F(StuckWriter, GetsItsReadEventsAtOnce) {
  turnUntilWrites(8);
  const int before = writer_.writes;
  rawSend(ends_.second.get(), "x");
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(writer_.reads, 1);
  EXPECT_EQ(writer_.writes, before);
}

TEST_F(StuckWriter, IsCalledAtOnceAfterAttachingAnew) {
  turnUntilWrites(8);
  const int before = writer_.writes;
  writer_.control->attach(ends_.first.get());
  writer_.control->setWriteInterest(true);
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(writer_.writes, before + 1);
}

TEST_F(StuckWriter, StartsWithShortPausesAfterAttachingAnew) {
  EXPECT_TRUE(onceWithin(50ms, [&] {
    turnUntilWrites(writer_.writes + 8);
    writer_.control->attach(ends_.first.get());
    writer_.control->setWriteInterest(true);
    const auto first = times_.size();
    turnUntilWrites(writer_.writes + 4);
    return times_[first + 3] - times_[first];
  }));
}

TEST_F(StuckWriter, IsForgottenWhenDestroyed) {
  turnUntilWrites(4);
  writer_.control.reset();
  EXPECT_EQ(turnFor(40ms), 1);
}

TEST_F(StuckWriter, MayDetachInTheCallbackAfterAPause) {
  writer_.onWrite = [this](int) {
    writer_.deferWriteEvent();
    if (writer_.writes == 5) {
      writer_.control->detach();
    }
  };
  turnUntilWrites(5);
  EXPECT_EQ(turnFor(20ms), 1);
}

TEST_F(StuckWriter, IsCalledAtOnceOnceItWantsToWriteAgain) {
  writer_.onWrite = [this](int) {
    writer_.deferWriteEvent();
    writer_.control->setWriteInterest(false);
  };
  EXPECT_TRUE(loop().dispatch());
  writer_.control->setWriteInterest(true);
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(writer_.writes, 2);
}

TEST_F(StuckWriter, IsNotCalledByTheTurnThatEndsAPause) {
  turnUntilWrites(3);
  EXPECT_FALSE(loop().runOnce(10s));
  EXPECT_EQ(writer_.writes, 3);
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(writer_.writes, 4);
}

TEST_F(StuckWriter, CausesNoTurnsOnceItsSocketHasFilled) {
  turnUntilWrites(4);
  setNonBlocking(ends_.first.get());
  while (::send(ends_.first.get(), "x", 1, MSG_NOSIGNAL) == 1) {
  }
  EXPECT_LE(turnFor(100ms), 2) << "the pause's end and the end of the time";
  EXPECT_EQ(writer_.writes, 4);
}

TEST_F(StuckWriter, IsTriedAgainThoughTheKernelRefusedOnce) {
  turnUntilWrites(3);
  {
    const Faults::Fail fail(Call::kEpollCtl, ENOSPC, 1);
    EXPECT_EQ(thrownBy([] { turnFor(5s); }),
              "EventLoop: epoll_ctl failed: No space left on device");
  }
  turnUntilWrites(6);
}

TEST_F(StuckWriter, IsCalledAtOnceAfterItsFirstCallbackThatDefersNothing) {
  turnUntilWrites(7);
  writer_.onWrite = nullptr;
  turnUntilWrites(8);
  for (int writes = 9; writes <= 40; ++writes) {
    ASSERT_TRUE(loop().dispatch());
    EXPECT_EQ(writer_.writes, writes);
  }
}

TEST_F(StuckWriter, StartsWithShortPausesAfterACallbackThatDefersNothing) {
  const auto deferring = writer_.onWrite;
  EXPECT_TRUE(onceWithin(50ms, [&] {
    turnUntilWrites(writer_.writes + 8);
    writer_.onWrite = nullptr;
    turnUntilWrites(writer_.writes + 1);
    writer_.onWrite = deferring;
    const auto first = times_.size();
    turnUntilWrites(writer_.writes + 4);
    return times_[first + 3] - times_[first];
  }));
}

TEST_F(StuckWriter, KeepsItsPausesWhileItReads) {
  turnUntilWrites(6);
  const auto first = times_.size() - 1;
  writer_.onRead = [](int fd) { rawReceiveNow(fd); };
  while (writer_.writes < 9) {
    rawSend(ends_.second.get(), "x");
    loop().runOnce(5s);
  }
  for (auto at = first + 1; at < times_.size(); ++at) {
    EXPECT_GE(times_[at] - times_[at - 1], 32ms);
  }
}

TEST_F(StuckWriter, IsSlowedByAnExceptionThatItsHookDealtWith) {
  writer_.onWrite = [this](int) {
    writer_.deferWriteEvent();
    throw std::runtime_error("from a callback");
  };
  writer_.onException = [](int) { return true; };
  turnFor(100ms);
  EXPECT_LE(writer_.writes, 8);
}

TEST_F(StuckWriter, IsNotSlowedByADeferralOutsideOfItsCallbacks) {
  writer_.onWrite = nullptr;
  writer_.onRead = [this](int /*fd*/) { writer_.deferWriteEvent(); };
  rawSend(ends_.second.get(), "x");
  for (int turn = 1; turn <= 20; ++turn) {
    writer_.deferWriteEvent();
    ASSERT_TRUE(loop().dispatch());
    EXPECT_EQ(writer_.writes, turn);
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

class StuckReader : public testing::Test {
 protected:
  StuckReader() {
    rawSend(ends_.second.get(), "left unread");
    reader_.onRead = [this](int) {
      times_.push_back(Clock::now());
      reader_.deferReadEvent();
    };
  }

  void turnUntilReads(int count) {
    ASSERT_TRUE(turnUntil([&] { return reader_.reads >= count; }));
  }

  std::pair<Fd, Fd> ends_ = rawPair();
  Watcher reader_{ends_.first.get()};
  Times times_;
};

TEST_F(StuckReader, IsCalledAtAFallingRate) {
  const int turns = turnFor(500ms);

  expectFallingRate(times_);
  EXPECT_LE(reader_.reads, 12);
  EXPECT_GE(reader_.reads, 4);
  EXPECT_LE(turns, 40);
}

TEST_F(StuckReader, DoesNotSpinOnAHangUpThatTheKernelReportsUnasked) {
  ends_.second.reset();
  EXPECT_LE(turnFor(300ms), 30);
  EXPECT_LE(reader_.reads, 10);
}

TEST_F(StuckReader, IsNotCalledForAHangUpDuringAPause) {
  turnUntilReads(8);
  ends_.second.reset();
  const bool called = loop().dispatch();
  EXPECT_EQ(called, reader_.reads > 8) << "the pause may have ended on a slow machine";
}

TEST_F(StuckReader, DoesNotSpinOnAHangUpWhileItsWriteInterestIsOn) {
  reader_.onWrite = [this](int) { reader_.deferWriteEvent(); };
  turnUntilReads(1);
  reader_.control->setWriteInterest(true);
  ends_.second.reset();
  EXPECT_LE(turnFor(300ms), 60);
  EXPECT_LE(reader_.reads + reader_.writes, 22);
  EXPECT_GE(reader_.writes, 3) << "its write events come again with its read events";
}

TEST_F(StuckReader, IsCalledAtOnceAfterItsFirstCallbackThatDefersNothing) {
  turnUntilReads(7);
  reader_.onRead = nullptr;
  turnUntilReads(8);
  for (int reads = 9; reads <= 40; ++reads) {
    ASSERT_TRUE(loop().dispatch());
    EXPECT_EQ(reader_.reads, reads);
  }
}

TEST_F(StuckReader, IsCalledAtOnceAfterAttachingAgain) {
  turnUntilReads(8);
  const auto ends = rawPair();
  rawSend(ends.second.get(), "x");
  reader_.control->attach(ends.first.get());
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(reader_.reads, 9);
}

TEST_F(StuckReader, StartsWithShortPausesAfterAttachingAgain) {
  EXPECT_TRUE(onceWithin(50ms, [&] {
    turnUntilReads(reader_.reads + 8);
    reader_.control->attach(ends_.first.get());
    const auto first = times_.size();
    turnUntilReads(reader_.reads + 4);
    return times_[first + 3] - times_[first];
  }));
}

TEST_F(StuckReader, StaysAttachedDuringAPause) {
  turnUntilReads(6);
  Watcher other;
  EXPECT_EQ(thrownBy([&] { other.control->attach(ends_.first.get()); }),
            "EventLoop: epoll_ctl failed: File exists");
}

TEST_F(StuckReader, MayBeDestroyedDuringAPause) {
  turnUntilReads(6);
  reader_.control.reset();
  EXPECT_EQ(turnFor(40ms), 1);
}

TEST_F(StuckReader, IsTriedAgainThoughTheKernelRefusedOnce) {
  turnUntilReads(3);
  {
    const Faults::Fail fail(Call::kEpollCtl, ENOSPC, 1);
    EXPECT_EQ(thrownBy([] { turnFor(5s); }),
              "EventLoop: epoll_ctl failed: No space left on device");
  }
  turnUntilReads(6);
}

TEST_F(StuckReader, IsReadAtOnceAgainIfOnlyACallbackWithinItsCallbackDeferred) {
  reader_.onRead = [this](int) {
    if (reader_.reads % 2 == 1) {
      loop().dispatch();
    } else {
      reader_.deferReadEvent();
    }
  };
  for (int turn = 1; turn <= 20; ++turn) {
    ASSERT_TRUE(loop().dispatch());
    EXPECT_EQ(reader_.reads, 2 * turn);
  }
}

}  // namespace
