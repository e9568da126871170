// The loop as a whole: running, stopping, foreign loops, failures, lifetime.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <future>
#include <iterator>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "tests/kelvo/Handlers.h"
#include "tests/support/Faults.h"

using namespace std::chrono_literals;
using Faults::Call;
using Kelvo::Platform::EventLoop;
using Clock = std::chrono::steady_clock;

namespace {

/// The loop of this thread, which a test leaves without anything due or pending.
class Loop : public testing::Test {
 protected:
  ~Loop() override { turnUntilIdle(); }

  /// Stops the loop if the test has gone wrong, so that `run` ends in any case.
  void guard() {
    emergency_.onTimeout = [] {
      ADD_FAILURE() << "run() did not end by itself";
      loop().stop();
    };
    emergency_.timer->arm(10);
  }

  /// Runs an action in the first turn of `run`.
  void onceRunning(const std::function<void()>& action) {
    starter_.onTimeout = action;
    starter_.timer->arm(0);
  }

  Alarm emergency_;
  Alarm starter_;
};

// --- run and stop ---

TEST_F(Loop, FinishesTheTurnInWhichItIsStopped) {
  guard();
  const auto endsA = rawPair();
  const auto endsB = rawPair();
  Watcher a(endsA.first.get());
  Watcher b(endsB.first.get());
  a.onRead = [](int) { loop().stop(); };
  b.onRead = a.onRead;
  rawSend(endsA.second.get(), "x");
  rawSend(endsB.second.get(), "x");
  loop().run();

  EXPECT_EQ(a.reads, 1);
  EXPECT_EQ(b.reads, 1);
  a.control->detach();
  b.control->detach();
  EXPECT_FALSE(somethingIsDue()) << "no request is left";

  int posted = 0;
  loop().post([&] {
    ++posted;
    loop().stop();
  });
  loop().run();
  EXPECT_EQ(posted, 1);
}

EventLoop* interrupted = nullptr;
int errnoAfterStop = 0;

void stopFromSignal(int /*signal*/) {
  const int before = errno;
  errno = ENOTTY;
  interrupted->stop();
  errnoAfterStop = errno;
  errno = before;
}

TEST_F(Loop, IsStoppedByASignalHandler) {
  guard();
  interrupted = &loop();
  std::signal(SIGUSR1, stopFromSignal);
  std::promise<void> running;
  onceRunning([&] { running.set_value(); });
  std::thread sender([&running, target = pthread_self()] {
    running.get_future().wait();
    pthread_kill(target, SIGUSR1);
  });
  loop().run();
  sender.join();
  std::signal(SIGUSR1, SIG_DFL);

  EXPECT_EQ(errnoAfterStop, ENOTTY);
}

TEST_F(Loop, KeepsErrnoWhenAStopFailsToWake) {
  {
    const Faults::Fail fail(Call::kWrite, EAGAIN);
    errno = ENOTTY;
    loop().stop();
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(fail.hits(), 1);
  }
  loop().stop();
  loop().run();  // takes the stop
}

TEST_F(Loop, EndsAtOnceIfItWasStoppedBeforeItRan) {
  guard();
  const auto ends = rawPair();
  Watcher watcher(ends.first.get());
  rawSend(ends.second.get(), "x");
  loop().stop();
  loop().run();
  std::thread([&mine = loop()] { mine.stop(); }).join();
  loop().run();

  EXPECT_EQ(watcher.reads, 0);
  watcher.control->detach();
  EXPECT_FALSE(somethingIsDue()) << "nothing of the requests is left";
}

TEST_F(Loop, HearsOfAnotherThreadsStopThroughItsDescriptorAlone) {
  std::thread([&mine = loop()] {
    const Faults::Fail fail(Faults::Call::kWrite, EAGAIN);
    mine.stop();
  }).join();
  Alarm alarm;
  alarm.onTimeout = [] { loop().stop(); };
  alarm.timer->arm(0);
  loop().run();
  EXPECT_EQ(alarm.fired, 1);
}

TEST_F(Loop, IsEndedOnceByOneStop) {
  guard();
  loop().stop();
  loop().run();
  onceRunning([] { loop().stop(); });
  loop().run();

  EXPECT_EQ(starter_.fired, 1);
}

TEST_F(Loop, RunsWithinARunAndIsStoppedOneByOne) {
  guard();
  Alarm inner;
  inner.onTimeout = [] { loop().stop(); };
  onceRunning([&] {
    inner.timer->arm(0);
    loop().run();
    EXPECT_EQ(inner.fired, 1);
    inner.timer->arm(0);
  });
  loop().run();

  EXPECT_EQ(inner.fired, 2);
}

TEST_F(Loop, GoesOnRunningAfterAnInterruption) {
  guard();
  const Faults::Fail fail(Call::kEpollWait, EINTR, 2);
  onceRunning([] { loop().stop(); });
  loop().run();

  EXPECT_EQ(fail.hits(), 2);
  EXPECT_EQ(starter_.fired, 1);
}

// --- one turn ---

TEST_F(Loop, WaitsForAsLongAsItWasTold) {
  const auto before = Clock::now();
  EXPECT_FALSE(loop().runOnce(20ms));
  EXPECT_GE(Clock::now() - before, 19ms);

  const Faults::Trace trace;
  EXPECT_FALSE(loop().runOnce(0ms));
  EXPECT_EQ(trace.count(Call::kEpollWait), 1);
}

TEST_F(Loop, WaitsForEverIfTheTimeIsNegative) {
  for (const auto time : {std::chrono::milliseconds(-1), std::chrono::milliseconds(-5),
                          std::chrono::milliseconds::min(), std::chrono::milliseconds::max()}) {
    starter_.timer->arm(0.003);
    EXPECT_TRUE(loop().runOnce(time)) << time.count();
  }
  EXPECT_EQ(starter_.fired, 4);
}

TEST_F(Loop, DoesNotWaitWhenItDispatches) {
  starter_.timer->arm(1000);
  EXPECT_TRUE(onceWithin(900us, [] {
    const auto before = Clock::now();
    EXPECT_FALSE(loop().dispatch());
    return Clock::now() - before;
  }));
}

TEST_F(Loop, TakesOneTurnOnly) {
  starter_.onTimeout = [&] { starter_.timer->arm(0); };
  starter_.timer->arm(0);
  EXPECT_TRUE(loop().runOnce(1s));
  EXPECT_EQ(starter_.fired, 1);
  starter_.timer->disarm();
}

TEST_F(Loop, TellsThatNoCallbackWasMadeWhenOnlyAStopWokeIt) {
  loop().stop();
  EXPECT_FALSE(loop().runOnce(10s));
  EXPECT_FALSE(somethingIsDue());
  loop().run();  // takes the stop
}

TEST_F(Loop, TellsThatACallbackWasMadeWhicheverItWas) {
  const auto ends = rawPair();
  Watcher watcher(ends.first.get());
  watcher.control->setWriteInterest(true);
  EXPECT_TRUE(loop().runOnce(0ms));
  watcher.control->setWriteInterest(false);
  rawSend(ends.second.get(), "x");
  EXPECT_TRUE(loop().runOnce(0ms));
  watcher.control->detach();
  starter_.timer->arm(0.001);
  EXPECT_TRUE(loop().runOnce(1s));
  EXPECT_FALSE(loop().runOnce(0ms));
}

TEST_F(Loop, ReturnsWithoutACallbackWhenInterrupted) {
  const Faults::Fail fail(Call::kEpollWait, EINTR, 1);
  EXPECT_FALSE(loop().runOnce(10s));
  EXPECT_EQ(fail.hits(), 1);
}

TEST_F(Loop, ThrowsWhenTheKernelRefusesToWaitAndIsUsableAfterwards) {
  starter_.timer->arm(0);
  {
    const Faults::Fail fail(Call::kEpollWait, EINVAL, 3);
    const std::string text = "EventLoop: epoll_wait failed: Invalid argument";
    EXPECT_EQ(thrownBy([] { loop().run(); }), text);
    EXPECT_EQ(thrownBy([] { loop().runOnce(1s); }), text);
    EXPECT_EQ(thrownBy([] { loop().dispatch(); }), text);
  }
  EXPECT_TRUE(turnUntil([&] { return starter_.fired == 1; }));
}

// --- foreign loops ---

TEST_F(Loop, HasAReadableDescriptorExactlyWhileADescriptorIsDue) {
  const auto ends = rawPair();
  Watcher watcher(ends.first.get());
  watcher.onRead = [](int fd) { rawReceiveNow(fd); };
  EXPECT_FALSE(somethingIsDue());
  rawSend(ends.second.get(), "x");
  EXPECT_TRUE(somethingIsDue());
  EXPECT_TRUE(loop().dispatch());
  EXPECT_FALSE(somethingIsDue());
}

TEST_F(Loop, HasAReadableDescriptorExactlyWhileATimerIsDue) {
  starter_.timer->arm(0.002);
  EXPECT_TRUE(readable(loop().fd(), 10000));
  EXPECT_TRUE(somethingIsDue()) << "level-triggered";
  EXPECT_TRUE(loop().dispatch());
  EXPECT_FALSE(somethingIsDue());

  starter_.timer->arm(0);
  EXPECT_TRUE(readable(loop().fd(), 10000));
  starter_.timer->disarm();
  EXPECT_FALSE(somethingIsDue());
}

TEST_F(Loop, HasAReadableDescriptorWhileAStopIsToBeSeen) {
  loop().stop();
  EXPECT_TRUE(somethingIsDue());
  EXPECT_FALSE(loop().dispatch());
  EXPECT_FALSE(somethingIsDue());
  loop().run();
}

/// More descriptors than one wait reports.
class CrowdedLoop : public Loop {
 protected:
  int reads() const {
    return std::accumulate(watchers_.begin(), watchers_.end(), 0,
                           [](int sum, const auto& watcher) { return sum + watcher->reads; });
  }

  Crowd crowd_{1000};
  std::vector<std::unique_ptr<Watcher>>& watchers_ = crowd_.watchers;
};

TEST_F(CrowdedLoop, IsStoppedByAnotherThreadWithinOneBatch) {
  std::thread([&mine = loop()] { mine.stop(); }).join();
  EXPECT_TRUE(loop().dispatch());
  loop().run();
  EXPECT_LE(reads(), 128);

  int before = 0;
  watchers_[0]->onRead = [&](int) {
    before = reads();
    std::thread([&mine = loop()] { mine.stop(); }).join();
    watchers_[0]->control->detach();
  };
  loop().run();
  EXPECT_LE(reads() - before, 64);
}

TEST_F(CrowdedLoop, DeliversATimerWithinOneBatch) {
  Alarm alarm;
  alarm.timer->arm(0);
  letPass(std::chrono::microseconds(100));
  loop().dispatch();
  EXPECT_EQ(alarm.fired, 1);
  EXPECT_LE(reads(), 64);
}

TEST_F(Loop, DeliversWhatCameFirstOnceInAFullBatch) {
  Alarm first;
  Alarm second;
  first.timer->arm(0);
  second.timer->arm(0);
  letPass(std::chrono::microseconds(100));
  int posted = 0;
  loop().post([&] { loop().post([&] { ++posted; }); });
  const Crowd crowd(100);

  loop().dispatch();
  EXPECT_EQ(first.fired, 1);
  EXPECT_EQ(second.fired, 0);
  EXPECT_EQ(posted, 0);
}

TEST_F(CrowdedLoop, LeavesTheRestOfAnOvertakenTurnToTheNextOne) {
  Alarm first;
  Alarm second;
  int posted = 0;
  watchers_[0]->onRead = [&](int) {
    watchers_[0]->control->detach();
    first.timer->arm(0);
    second.timer->arm(0);
    letPass(std::chrono::microseconds(100));
    loop().dispatch();
    loop().post([&] { ++posted; });
  };
  while (watchers_[0]->reads == 0) {
    loop().dispatch();
  }
  EXPECT_LE(first.fired + second.fired, 1);
  EXPECT_EQ(posted, 0);
}

// --- one loop a thread ---

TEST_F(Loop, ServesTheThreadThatMadeTheRegistration) {
  EventLoop* const mine = &loop();
  starter_.timer->arm(0);
  std::thread([&] {
    EXPECT_NE(&loop(), mine);
    Alarm alarm;
    alarm.timer->arm(0);
    EXPECT_TRUE(turnUntil([&] { return alarm.fired == 1; }));
    EXPECT_FALSE(loop().dispatch());
  }).join();

  EXPECT_EQ(&loop(), mine);
  EXPECT_EQ(starter_.fired, 0);
  EXPECT_TRUE(turnUntil([&] { return starter_.fired == 1; }));
}

/// At its end, reports with its exit status whether the thread's loop still serves.
class Late {
 public:
  ~Late() {
    if (active) {
      Alarm alarm;
      alarm.timer->arm(0);
      _exit(turnUntil([&] { return alarm.fired == 1; }) ? 0 : 1);
    }
  }
  bool active = false;
};

Late lateStatic;

TEST_F(Loop, OfTheMainThreadServesTheDestructorsOfStaticObjects) {
  EXPECT_EXIT(
      {
        loop().dispatch();
        lateStatic.active = true;
        std::exit(2);
      },
      testing::ExitedWithCode(0), "");
}

std::vector<int> madeBy(const std::function<void()>& action) {
  const auto before = openDescriptors();
  action();
  const auto after = openDescriptors();
  std::vector<int> made;
  std::set_difference(after.begin(), after.end(), before.begin(), before.end(),
                      std::back_inserter(made));
  return made;
}

TEST_F(Loop, OpensThreeDescriptorsThatNoOtherProgramInherits) {
  std::thread([] {
    const auto made = madeBy([] { loop(); });
    EXPECT_EQ(made.size(), 3U);
    EXPECT_THAT(made, testing::Contains(loop().fd()));
    for (const int fd : made) {
      EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    }
    EXPECT_TRUE(madeBy([] { loop().dispatch(); }).empty());
  }).join();
}

TEST_F(Loop, ClosesItsDescriptorsWhenItsThreadEnds) {
  EXPECT_TRUE(madeBy([] { std::thread([] { loop().dispatch(); }).join(); }).empty());
}

TEST_F(Loop, LetsControlsAndTimersBeReleasedAfterItsThreadHasEnded) {
  const auto before = openDescriptors();
  {
    const auto ends = rawPair();
    std::unique_ptr<Watcher> watcher;
    std::unique_ptr<Alarm> alarm;
    std::unique_ptr<Alarm> withheld;
    std::thread([&] {
      watcher = std::make_unique<Watcher>(ends.first.get());
      alarm = std::make_unique<Alarm>();
      withheld = std::make_unique<Alarm>(watcher.get());
      alarm->timer->arm(1);
      withheld->timer->arm(0);
      loop().runOnce(1s);
    }).join();
    rawSend(ends.second.get(), "x");
    watcher.reset();
    alarm.reset();
    withheld.reset();
  }
  EXPECT_EQ(openDescriptors(), before);
}

// --- a kernel that refuses ---

struct Refusal {
  Call call;
  int skip;
  const char* text;
};

class LoopCreation : public testing::TestWithParam<Refusal> {};

INSTANTIATE_TEST_SUITE_P(
    Each, LoopCreation,
    testing::Values(Refusal{Call::kEpollCreate, 0, "making a descriptor of its own failed"},
                    Refusal{Call::kEventfd, 0, "making a descriptor of its own failed"},
                    Refusal{Call::kTimerfdCreate, 0, "making a descriptor of its own failed"},
                    Refusal{Call::kEpollCtl, 0, "epoll_ctl failed"},
                    Refusal{Call::kEpollCtl, 1, "epoll_ctl failed"}));

TEST_P(LoopCreation, ThrowsLeaksNothingAndMayBeTriedAgain) {
  std::thread([] {
    const auto made = madeBy([] {
      const Faults::Fail fail(GetParam().call, EMFILE, 1, GetParam().skip);
      try {
        loop();
        ADD_FAILURE() << "not thrown";
      } catch (const Kelvo::Exception& exception) {
        EXPECT_EQ(exception.what(),
                  std::string("EventLoop: ") + GetParam().text + ": " + std::strerror(EMFILE));
        EXPECT_TRUE(exception.external());
      }
    });
    EXPECT_TRUE(made.empty());

    Alarm alarm;
    alarm.timer->arm(0);
    EXPECT_TRUE(turnUntil([&] { return alarm.fired == 1; }));
  }).join();
}

}  // namespace
