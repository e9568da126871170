#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "tests/kelvo/Handlers.h"
#include "tests/support/Faults.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Faults::Call;

namespace {

class Timer : public testing::Test {
 protected:
  /// How long an expiry really takes.
  Clock::duration measured(double seconds) {
    const int before = a_.fired;
    const auto start = Clock::now();
    a_.timer->arm(seconds);
    EXPECT_TRUE(turnUntil([&] { return a_.fired > before; }));
    return Clock::now() - start;
  }

  /// Makes both due at once; the first to be called acts on the other.
  void onFirst(const std::function<void(Alarm& other)>& action) {
    const auto acting = [=](Alarm& other) { return [=, &other] { action(other); }; };
    a_.onTimeout = acting(b_);
    b_.onTimeout = acting(a_);
    armBoth();
  }

  void armBoth() {
    a_.timer->arm(0);
    b_.timer->arm(0);
    letPass(100us);
  }

  Alarm a_;
  Alarm b_;
};

TEST_F(Timer, FiresOnce) {
  a_.timer->arm(0.001);
  EXPECT_TRUE(turnUntil([&] { return a_.fired > 0; }));
  b_.timer->arm(0.005);
  EXPECT_TRUE(turnUntil([&] { return b_.fired > 0; }));

  EXPECT_EQ(a_.fired, 1);
}

TEST_F(Timer, FiresOnlyInsideATurn) {
  EXPECT_FALSE(loop().dispatch());
  a_.timer->arm(0);
  letPass(100us);
  EXPECT_EQ(a_.fired, 0);
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(a_.fired, 1);
}

TEST_F(Timer, NeverFiresEarly) {
  for (const double seconds : {0.00005, 0.0003, 0.0007, 0.00149, 0.0031}) {
    for (int round = 0; round < 10; ++round) {
      EXPECT_GE(measured(seconds), std::chrono::duration<double>(seconds));
    }
  }
}

TEST_F(Timer, IsTrueBelowAMillisecond) {
  EXPECT_TRUE(onceWithin(900us, [&] { return measured(0.0003); }));
}

TEST_F(Timer, WakesTheLoopOnceForAnExpiryAndNotBefore) {
  b_.timer->arm(100);
  for (int round = 0; round < 20; ++round) {
    a_.timer->arm(0.0009);
    ASSERT_TRUE(loop().runOnce(10s)) << "a turn for nothing";
  }
}

TEST_F(Timer, CallsTheKernelOnlyWhenTheEarliestDeadlineChanges) {
  a_.timer->arm(50);
  const Faults::Trace trace;
  b_.timer->arm(100);
  b_.timer->arm(60);
  b_.timer->disarm();
  loop().dispatch();
  EXPECT_EQ(trace.count(Call::kTimerfdSettime), 0);
  b_.timer->arm(40);
  b_.timer->disarm();
  EXPECT_EQ(trace.count(Call::kTimerfdSettime), 2);
}

TEST_F(Timer, CountsInSeconds) {
  EXPECT_TRUE(onceWithin(100ms, [&] {
    const auto took = measured(0.05);
    EXPECT_GE(took, 50ms);
    return took;
  }));
}

TEST_F(Timer, FiresAtTheNextTurnForZeroOrLess) {
  for (const double seconds : {0.0, -0.0, -1.0, -1e300, -std::numeric_limits<double>::infinity()}) {
    for (int round = 0; round < 200; ++round) {
      Alarm alarm;
      alarm.timer->arm(seconds);
      ASSERT_TRUE(loop().dispatch()) << seconds << " in round " << round;
    }
  }
}

TEST_F(Timer, RefusesWhatIsNotANumber) {
  a_.timer->arm(0);
  try {
    a_.timer->arm(std::numeric_limits<double>::quiet_NaN());
    FAIL();
  } catch (const Kelvo::Exception& exception) {
    EXPECT_STREQ(exception.what(), "Timer: the delay to arm with is not a number");
    EXPECT_FALSE(exception.external());
  }
  EXPECT_TRUE(turnUntil([&] { return a_.fired == 1; })) << "the pending expiry was lost";
}

TEST_F(Timer, WaitsForAsLongAsTheClockCanTell) {
  for (const double seconds : {1e9, 1e12, 1e300, std::numeric_limits<double>::infinity()}) {
    EXPECT_NO_THROW(a_.timer->arm(seconds));
    letPass(100us);
    EXPECT_FALSE(somethingIsDue()) << seconds;
  }
  b_.timer->arm(0.001);
  EXPECT_TRUE(turnUntil([&] { return b_.fired == 1; }));
  EXPECT_EQ(a_.fired, 0);
}

TEST_F(Timer, ReplacesAPendingExpiryWhenArmedAgain) {
  a_.timer->arm(0);
  a_.timer->arm(100);
  letPass(100us);
  EXPECT_FALSE(somethingIsDue());
  EXPECT_FALSE(loop().dispatch());

  a_.timer->arm(0.001);
  EXPECT_TRUE(turnUntil([&] { return a_.fired == 1; }));
  EXPECT_FALSE(loop().runOnce(2ms));
}

TEST_F(Timer, ChangesItsPlaceAmongOthersWhenArmedAgain) {
  Alarm c;
  b_.timer->arm(50);
  a_.timer->arm(100);
  c.timer->arm(200);
  c.timer->arm(0.0005);
  EXPECT_TRUE(turnUntil([&] { return c.fired == 1; }));
  a_.timer->arm(0.0005);
  b_.timer->arm(300);
  EXPECT_TRUE(turnUntil([&] { return a_.fired == 1; }));
  EXPECT_EQ(b_.fired, 0);
}

TEST_F(Timer, MayBeArmedInsideItsCallback) {
  a_.onTimeout = [&] { a_.timer->arm(0); };
  a_.timer->arm(0);
  for (int turn = 1; turn <= 5; ++turn) {
    ASSERT_TRUE(turnUntil([&] { return a_.fired == turn; })) << "one expiry a turn";
  }
}

TEST_F(Timer, IsNotPendingInsideItsCallback) {
  a_.onTimeout = [&] { a_.timer->disarm(); };
  EXPECT_NO_THROW(measured(0));
  a_.onTimeout = [&] {
    a_.timer->arm(0);
    a_.timer->disarm();
  };
  measured(0);
  letPass(100us);
  EXPECT_FALSE(somethingIsDue());
  EXPECT_EQ(a_.fired, 2);
}

TEST_F(Timer, DropsAPendingExpiryWhenDisarmed) {
  armBoth();
  a_.timer->disarm();
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(b_.fired, 1) << "the other one stays";
  b_.timer->arm(100);
  a_.timer->arm(0);
  letPass(1ms);
  a_.timer->disarm();
  EXPECT_FALSE(somethingIsDue());
  EXPECT_FALSE(loop().dispatch());
  a_.timer->disarm();
  EXPECT_EQ(a_.fired, 0);
}

TEST_F(Timer, DropsAPendingExpiryWhenReleased) {
  a_.timer->arm(0);
  a_.timer.reset();
  letPass(100us);
  EXPECT_FALSE(somethingIsDue());
  EXPECT_FALSE(loop().dispatch());
}

TEST_F(Timer, MayBeDestroyedInsideItsCallback) {
  auto mortal = std::make_unique<Alarm>();
  mortal->onTimeout = [&] { mortal.reset(); };
  mortal->timer->arm(0);
  a_.timer->arm(0);
  EXPECT_TRUE(turnUntil([&] { return a_.fired == 1; }));
  EXPECT_EQ(mortal, nullptr);
}

TEST_F(Timer, MayBeReleasedInsideItsCallbackWhileItsHandlerLives) {
  a_.onTimeout = [&] { a_.timer.reset(); };
  armBoth();
  turnUntilIdle();
  EXPECT_EQ(a_.fired, 1);
  EXPECT_EQ(b_.fired, 1);
}

TEST_F(Timer, MayDisarmOrPutOffAnotherThatIsDueInTheSameTurn) {
  for (const bool disarms : {true, false}) {
    letPass(1ms);  // since one has fired
    a_.fired = b_.fired = 0;
    onFirst([=](Alarm& other) { disarms ? other.timer->disarm() : other.timer->arm(100); });
    EXPECT_TRUE(loop().dispatch());
    EXPECT_EQ(a_.fired + b_.fired, 1);
    EXPECT_FALSE(somethingIsDue());
  }
}

TEST_F(Timer, MayDestroyAnotherThatIsDueInTheSameTurn) {
  auto mortal = std::make_unique<Alarm>();
  a_.onTimeout = [&] { mortal.reset(); };
  a_.timer->arm(0);
  mortal->timer->arm(0);
  letPass(100us);

  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(mortal, nullptr);
  EXPECT_FALSE(loop().dispatch());
}

TEST_F(Timer, ExpiresInTheOrderOfDeadlines) {
  std::vector<int> order;
  Alarm alarms[4];
  const double delays[] = {0.03, 0.01, 0.02, 0.0};
  for (int i = 0; i < 4; ++i) {
    alarms[i].onTimeout = [&order, i] { order.push_back(i); };
    alarms[i].timer->arm(delays[i]);
  }
  letPass(40ms);
  turnUntilIdle();
  EXPECT_THAT(order, testing::ElementsAre(3, 1, 2, 0));
}

TEST_F(Timer, ExpiresInALaterTurnThanTheOneThatArmedIt) {
  a_.onTimeout = [&] {
    b_.timer->arm(-1);
    letPass(100us);
  };
  a_.timer->arm(0);
  letPass(100us);
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(b_.fired, 0);
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(b_.fired, 1);
}

TEST_F(Timer, ExpiresInALaterTurnAlsoWhenADescriptorsCallbackArmedIt) {
  const auto ends = rawPair();
  Watcher watcher(ends.first.get());
  bool inItsPlace = false;  // of the one that is due
  watcher.onRead = [&](int fd) {
    rawReceiveNow(fd);
    if (inItsPlace) {
      a_.timer->disarm();
    }
    b_.timer->arm(0);
    letPass(100us);
  };
  for (int round = 0; round < 2; ++round) {
    inItsPlace = round == 1;
    loop().dispatch();  // the kernel lists first what it has listed before
    rawSend(ends.second.get(), "x");
    a_.timer->arm(0.001);
    letPass(2ms);

    loop().dispatch();
    EXPECT_EQ(watcher.reads, round + 1);
    EXPECT_EQ(a_.fired, 1);
    EXPECT_EQ(b_.fired, round);
    EXPECT_TRUE(turnUntil([&] { return b_.fired == round + 1; }));
  }
}

TEST_F(Timer, ThatAlwaysRearmsItselfLeavesRoomForOthers) {
  a_.onTimeout = [&] { a_.timer->arm(0); };
  a_.timer->arm(0);
  b_.timer->arm(0.001);
  EXPECT_TRUE(turnUntil([&] { return b_.fired == 1; }));
  const auto ends = rawPair();
  Watcher watcher(ends.first.get());
  rawSend(ends.second.get(), "x");
  EXPECT_TRUE(turnUntil([&] { return watcher.reads == 1; }));
}

TEST_F(Timer, ThrowsIfTheKernelRefusesToBeSet) {
  const Faults::Fail fail(Call::kTimerfdSettime, EINVAL, 1);
  EXPECT_EQ(thrownBy([&] { a_.timer->arm(0.001); }),
            "EventLoop: timerfd_settime failed: Invalid argument");
}

TEST_F(Timer, LosesNoExpiryIfTheKernelRefusesAfterATurn) {
  a_.timer->arm(0);
  b_.timer->arm(0.1);
  letPass(100us);
  {
    const Faults::Fail fail(Call::kTimerfdSettime, EINVAL);
    EXPECT_TRUE(loop().dispatch());
    EXPECT_GT(fail.hits(), 0);
  }
  EXPECT_TRUE(turnUntil([&] { return b_.fired == 1; }));
}

TEST_F(Timer, NeverThrowsWhenItIsTakenBack) {
  armBoth();
  const Faults::Fail fail(Call::kTimerfdSettime, EINVAL);
  EXPECT_NO_THROW(a_.timer->disarm());
  EXPECT_NO_THROW(a_.timer.reset());
  EXPECT_NO_THROW(b_.timer.reset());
  EXPECT_FALSE(loop().dispatch());
}

TEST_F(Timer, IsHandledByOneHandlerTogetherWithOthers) {
  const auto second = Kelvo::Platform::getTimer(&a_);
  EXPECT_NE(second.get(), a_.timer.get());
  a_.timer->arm(0);
  second->arm(0);
  letPass(100us);
  turnUntilIdle();
  EXPECT_EQ(a_.fired, 2);
}

TEST_F(Timer, ExpiresAtMostOnceAMillisecond) {
  for (const double delay : {0.0, -1.0, 1e-9, -std::numeric_limits<double>::infinity()}) {
    Alarm alarm;
    alarm.onTimeout = [&] { alarm.timer->arm(delay); };
    alarm.timer->arm(delay);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(turnUntil([&] { return alarm.fired == 21; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
  }
}

TEST_F(Timer, IsHeldToThatFromItsOwnLastExpiryOnly) {
  a_.timer->arm(0);
  EXPECT_TRUE(loop().dispatch());
  b_.timer->arm(0);
  EXPECT_TRUE(loop().dispatch()) << "another timer";
  letPass(1ms);
  a_.timer->arm(0);
  EXPECT_TRUE(loop().dispatch()) << "a millisecond later";
}

TEST_F(Timer, ExpiresOncePerTurnSoThatTheKernelIsAskedInBetween) {
  armBoth();
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(a_.fired + b_.fired, 1);
  EXPECT_TRUE(somethingIsDue());
  turnUntilIdle();
  EXPECT_EQ(a_.fired + b_.fired, 2);
  EXPECT_FALSE(somethingIsDue());
}

TEST_F(Timer, SetsTheKernelsTimerOnceForAllThatAreDueTogether) {
  std::array<Alarm, 10> alarms;
  for (auto& alarm : alarms) {
    alarm.timer->arm(0);
  }
  letPass(100us);
  const Faults::Trace trace;
  turnUntilIdle();
  EXPECT_EQ(trace.count(Call::kTimerfdSettime), 1);
}

// --- withheld while a descriptor is attached ---

class WithheldTimer : public testing::Test {
 protected:
  /// Lets the timer become due while its guard is attached.
  void withhold(Alarm& alarm) {
    guard_.control->attach(ends_.first.get());
    alarm.timer->arm(0);
    letPass(100us);
    EXPECT_FALSE(loop().dispatch());
    EXPECT_EQ(alarm.fired, 0);
  }

  std::pair<Fd, Fd> ends_ = rawPair();
  Watcher guard_;
  Alarm alarm_{&guard_};
};

TEST_F(WithheldTimer, DoesNotFireOrWakeTheLoopWhileItsGuardIsAttached) {
  withhold(alarm_);
  EXPECT_FALSE(somethingIsDue());
  EXPECT_FALSE(loop().runOnce(2ms));
  EXPECT_EQ(alarm_.fired, 0);
}

TEST_F(WithheldTimer, FiresOnceInTheFirstTurnAfterItsGuardWasDetached) {
  withhold(alarm_);
  guard_.control->detach();
  EXPECT_EQ(alarm_.fired, 0) << "inside a turn only";
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(alarm_.fired, 1);

  guard_.control->attach(ends_.first.get());
  guard_.control->detach();
  EXPECT_FALSE(loop().runOnce(1ms));
  EXPECT_EQ(alarm_.fired, 1);
}

TEST_F(WithheldTimer, DoesNotFireWithItsGuardsDetachBeforeItWasArmedOrOnceItFired) {
  Alarm another;
  for (int firings = 0; firings < 2; ++firings) {
    guard_.control->attach(ends_.first.get());
    guard_.control->detach();
    EXPECT_FALSE(loop().dispatch());
    another.timer->arm(0);
    EXPECT_TRUE(turnUntil([&] { return another.fired == firings + 1; }));
    EXPECT_EQ(alarm_.fired, firings);
    alarm_.timer->arm(0);
    EXPECT_TRUE(turnUntil([&] { return alarm_.fired == firings + 1; }));
  }
}

TEST_F(WithheldTimer, FiresAfterItsGuardsControlWasReleased) {
  withhold(alarm_);
  guard_.control.reset();
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(alarm_.fired, 1);
}

TEST_F(WithheldTimer, KeepsItsDeadlineIfItsGuardDetachesBefore) {
  guard_.control->attach(ends_.first.get());
  const auto start = Clock::now();
  alarm_.timer->arm(0.003);
  guard_.control->detach();
  EXPECT_TRUE(turnUntil([&] { return alarm_.fired == 1; }));
  EXPECT_GE(Clock::now() - start, 3ms);
}

TEST_F(WithheldTimer, CountsAnAttachmentMadeBeforeTheTimerOrAfterArming) {
  alarm_.timer->arm(0.001);
  guard_.control->attach(ends_.first.get());
  Alarm later(&guard_);
  later.timer->arm(0);
  letPass(2ms);
  EXPECT_FALSE(loop().dispatch());
  EXPECT_EQ(alarm_.fired, 0);
  guard_.control->detach();
  turnUntilIdle();
  EXPECT_EQ(alarm_.fired, 1);
  EXPECT_EQ(later.fired, 1);
}

TEST_F(WithheldTimer, IsDroppedWhenDisarmedBeforeOrAfterItsGuardDetaches) {
  withhold(alarm_);
  alarm_.timer->disarm();
  guard_.control->detach();
  EXPECT_FALSE(somethingIsDue());
  EXPECT_FALSE(loop().dispatch());

  withhold(alarm_);
  guard_.control->detach();
  alarm_.timer->disarm();
  EXPECT_FALSE(loop().dispatch());
}

TEST_F(WithheldTimer, IsReplacedWhenArmedAnew) {
  withhold(alarm_);
  alarm_.timer->arm(100);
  guard_.control->detach();
  EXPECT_FALSE(somethingIsDue());
  EXPECT_FALSE(loop().dispatch());
  EXPECT_EQ(alarm_.fired, 0);
}

TEST_F(WithheldTimer, StaysWithheldWhenItsGuardChangesTheDescriptor) {
  withhold(alarm_);
  const auto others = rawPair();
  guard_.control->attach(others.first.get());
  EXPECT_FALSE(loop().runOnce(2ms));
  EXPECT_EQ(alarm_.fired, 0);
  EXPECT_FALSE(somethingIsDue());

  guard_.control->detach();
  EXPECT_TRUE(loop().dispatch());
}

TEST_F(WithheldTimer, WaitsForAllDescriptorsOfItsGuard) {
  const auto others = rawPair();
  const auto second = Kelvo::Platform::getFdControl(&guard_);
  withhold(alarm_);
  second->attach(others.first.get());
  EXPECT_FALSE(somethingIsDue());
  guard_.control->detach();
  EXPECT_FALSE(somethingIsDue());
  EXPECT_FALSE(loop().dispatch());
  second->detach();
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(alarm_.fired, 1);
}

TEST_F(WithheldTimer, FiresThoughTheKernelRefusedToBeSetAtTheDetach) {
  withhold(alarm_);
  {
    const Faults::Fail fail(Call::kTimerfdSettime, EINVAL);
    EXPECT_NO_THROW(guard_.control->detach());
    EXPECT_GT(fail.hits(), 0);
  }
  EXPECT_TRUE(turnUntil([&] { return alarm_.fired == 1; }, 1s));
}

TEST_F(WithheldTimer, IgnoresDescriptorsOfOthers) {
  const Watcher other(ends_.first.get());
  Alarm later(&guard_);
  later.timer->arm(0);
  alarm_.timer->arm(0);
  EXPECT_TRUE(turnUntil([&] { return alarm_.fired == 1 && later.fired == 1; }));

  Alarm unguarded;
  guard_.control->attach(ends_.second.get());
  unguarded.timer->arm(0);
  EXPECT_TRUE(turnUntil([&] { return unguarded.fired == 1; }));
}

TEST_F(WithheldTimer, SharesItsGuardWithOthers) {
  Alarm second(&guard_);
  auto third = std::make_unique<Alarm>(&guard_);
  Alarm fourth(&guard_);
  withhold(second);
  withhold(*third);
  withhold(alarm_);
  withhold(fourth);
  third.reset();
  guard_.control->detach();
  turnUntilIdle();

  EXPECT_EQ(alarm_.fired, 1);
  EXPECT_EQ(second.fired, 1);
  EXPECT_EQ(fourth.fired, 1);
}

TEST_F(WithheldTimer, IsForgottenWhenDestroyed) {
  auto mortal = std::make_unique<Alarm>(&guard_);
  withhold(*mortal);
  mortal.reset();
  guard_.control->detach();
  EXPECT_FALSE(somethingIsDue());
  guard_.control->attach(ends_.first.get());
  EXPECT_FALSE(loop().dispatch());
}

TEST_F(WithheldTimer, FiresIfItsGuardFailedToAttach) {
  EXPECT_NE(thrownBy([&] { guard_.control->attach(-1); }), "<nothing thrown>");
  alarm_.timer->arm(0);
  EXPECT_TRUE(turnUntil([&] { return alarm_.fired == 1; }));
}

TEST_F(WithheldTimer, StaysWithheldIfARearmingWasRefused) {
  withhold(alarm_);
  EXPECT_NE(thrownBy([&] { alarm_.timer->arm(std::numeric_limits<double>::quiet_NaN()); }),
            "<nothing thrown>");
  guard_.control->detach();
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(alarm_.fired, 1);
}

TEST_F(WithheldTimer, MayAttachItsGuardInItsCallback) {
  alarm_.onTimeout = [&] {
    alarm_.timer->arm(0);
    guard_.control->attach(ends_.first.get());
  };
  alarm_.timer->arm(0);
  EXPECT_TRUE(turnUntil([&] { return alarm_.fired == 1; }));
  EXPECT_FALSE(loop().runOnce(2ms));
  guard_.control->detach();
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(alarm_.fired, 2);
}

TEST_F(WithheldTimer, FiresAfterAGuardThatDetachedInsideItsOwnCallback) {
  withhold(alarm_);
  guard_.onRead = [&](int) { guard_.control->detach(); };
  ends_.second.reset();
  EXPECT_TRUE(loop().dispatch());
  EXPECT_TRUE(turnUntil([&] { return alarm_.fired == 1; }));
}

}  // namespace
