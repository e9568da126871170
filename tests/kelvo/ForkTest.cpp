#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "tests/kelvo/Handlers.h"
#include "tests/support/Faults.h"

using namespace std::chrono_literals;
using Kelvo::Platform::EventLoop;

namespace {

int processIdsAsked = 0;

}  // namespace

/// Takes the C library's place.
extern "C" pid_t getpid() noexcept {
  ++processIdsAsked;
  return static_cast<pid_t>(syscall(SYS_getpid));
}

namespace {

/// Ways to make a child process; all but the first run no handlers of the C library.
pid_t withFork() {
  return fork();
}
pid_t withPlainFork() {
  return _Fork();
}
pid_t withClone() {
  return static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
}

const std::string kRefusal =
    "EventLoop: this loop belongs to the parent process; a forked child cannot use it";

bool isRefused(const std::function<void()>& action) {
  try {
    action();
  } catch (const Kelvo::Exception& exception) {
    return exception.what() == kRefusal && !exception.external();
  }
  return false;
}

/// A parent with a watched socket and an armed timer.
class ForkedChild : public testing::Test {
 protected:
  ForkedChild() {
    watcher_->onRead = [](int fd) { rawReceiveNow(fd); };
    alarm_->timer->arm(0.02);
  }

  /// For tests in which nothing must become due meanwhile.
  void putOffAlarm() { alarm_->timer->arm(1000); }

  /// That the parent's registrations still work.
  void expectParentUnharmed() {
    rawSend(ends_.second.get(), "x");
    EXPECT_TRUE(turnUntil([&] { return watcher_->reads == 1 && alarm_->fired == 1; }));
  }

  std::pair<Fd, Fd> ends_ = rawPair();
  std::unique_ptr<Watcher> watcher_ = std::make_unique<Watcher>(ends_.first.get());
  std::unique_ptr<Alarm> alarm_ = std::make_unique<Alarm>();
};

TEST_F(ForkedChild, CannotTurnItsParentsLoop) {
  EXPECT_TRUE(inChild([] { return isRefused([] { loop().run(); }); }));
  EXPECT_TRUE(inChild([] { return isRefused([] { loop().runOnce(1ms); }); }));
  EXPECT_TRUE(inChild([] { return isRefused([] { loop().dispatch(); }); }));
  expectParentUnharmed();
}

TEST_F(ForkedChild, IsToldFromItsParentHoweverItWasForked) {
  for (const auto forkNow : {withFork, withPlainFork, withClone}) {
    const auto tidyUp = [this] {
      const Faults::Trace trace;
      watcher_.reset();
      alarm_.reset();
      loop().stop();
      return trace.calls().empty() && isRefused([] { loop().dispatch(); });
    };
    EXPECT_TRUE(inChild(tidyUp, forkNow));
    EXPECT_TRUE(inChild([&] { return inChild(tidyUp, forkNow); }, forkNow));
  }
  expectParentUnharmed();
}

// Where the kernel refuses a page that children find empty, kelvo_refused_page_test is for the
// rest.
TEST_F(ForkedChild, IsToldFromItsParentWithoutASystemCall) {
  const int before = processIdsAsked;
  expectParentUnharmed();
  EXPECT_EQ(processIdsAsked, before);
}

TEST_F(ForkedChild, CannotChangeItsParentsRegistrations) {
  EXPECT_TRUE(inChild([this] {
    Watcher fresh;
    return isRefused([&] { fresh.control->attach(ends_.second.get()); }) &&
           fresh.control->fd() == -1 &&
           isRefused([&] { watcher_->control->setWriteInterest(true); }) &&
           isRefused([&] { watcher_->control->attach(ends_.second.get()); });
  }));
  loop().dispatch();
  EXPECT_EQ(watcher_->writes, 0);
  expectParentUnharmed();
}

TEST_F(ForkedChild, CannotArmATimerOfItsParentsLoop) {
  putOffAlarm();
  EXPECT_TRUE(inChild([this] {
    Alarm fresh;
    return isRefused([&] { fresh.timer->arm(0); }) && isRefused([&] { alarm_->timer->arm(0); });
  }));
  EXPECT_FALSE(somethingIsDue());
}

TEST_F(ForkedChild, MayDetachAndDisarmWithoutHarmToItsParent) {
  EXPECT_TRUE(inChild([this] {
    watcher_->control->detach();
    alarm_->timer->disarm();
    return watcher_->control->fd() == -1;
  }));
  expectParentUnharmed();
}

TEST_F(ForkedChild, DoesNotStopItsParent) {
  putOffAlarm();
  EXPECT_TRUE(inChild([] {
    loop().stop();
    return true;
  }));
  EXPECT_FALSE(somethingIsDue());
  alarm_->onTimeout = [] { loop().stop(); };
  alarm_->timer->arm(0);
  loop().run();
  EXPECT_EQ(alarm_->fired, 1);
}

TEST_F(ForkedChild, MayReleaseAWithheldTimersGuard) {
  putOffAlarm();
  Alarm guarded(watcher_.get());
  guarded.timer->arm(0);
  letPass(100us);
  EXPECT_FALSE(loop().dispatch());
  EXPECT_TRUE(inChild([this] {
    watcher_->control->detach();
    return true;
  }));
  EXPECT_FALSE(somethingIsDue());
  watcher_->control->detach();
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(guarded.fired, 1);
}

TEST_F(ForkedChild, MayUseALoopOfAThreadOfItsOwn) {
  EXPECT_TRUE(inChild([] {
    bool fired = false;
    std::thread([&] {
      Alarm alarm;
      alarm.timer->arm(0.001);
      fired = turnUntil([&] { return alarm.fired == 1; });
    }).join();
    return fired;
  }));
}

TEST_F(ForkedChild, PassesTheRefusalOnToItsOwnChildren) {
  EXPECT_TRUE(inChild([] {
    bool refused = false;
    std::thread([&] {
      loop().dispatch();
      refused = inChild([] { return isRefused([] { loop().dispatch(); }); });
      loop().dispatch();
    }).join();
    return refused;
  }));
}

// --- a loop of the child's own ---

/// That this thread's loop serves a descriptor and a timer.
bool loopServes() {
  const auto ends = rawPair();
  Watcher watcher(ends.first.get());
  watcher.onRead = [](int fd) { rawReceiveNow(fd); };
  Alarm alarm;
  alarm.timer->arm(0.001);
  rawSend(ends.second.get(), "x");
  int posted = 0;
  loop().post([&posted] { ++posted; });
  return turnUntil([&] { return watcher.reads == 1 && alarm.fired == 1 && posted == 1; });
}

TEST_F(ForkedChild, GetsALoopOfItsOwnHoweverItWasForked) {
  for (const auto forkNow : {withFork, withPlainFork, withClone}) {
    const auto renew = [] {
      EventLoop& before = loop();
      EventLoop::renewAfterFork();
      return &before == &loop() && loopServes();
    };
    EXPECT_TRUE(inChild(renew, forkNow));
    EXPECT_TRUE(inChild([&] { return inChild(renew, forkNow); }, forkNow)) << "as a daemon does";
    EXPECT_TRUE(inChild([&] { return renew() && inChild(renew, forkNow); }, forkNow));
  }
  expectParentUnharmed();
}

TEST_F(ForkedChild, IsStillRefusedWhatBelongsToItsParentsLoop) {
  const auto remote = loop().remote();
  EXPECT_TRUE(inChild([&] {
    EventLoop::renewAfterFork();
    const bool refused = isRefused([this] { alarm_->timer->arm(0); }) &&
                         isRefused([this] { watcher_->control->setWriteInterest(true); }) &&
                         !remote.post([] {});
    watcher_.reset();
    alarm_.reset();
    return refused && loopServes();
  }));
  expectParentUnharmed();
}

TEST_F(ForkedChild, MayRenewItsLoopInsideACallback) {
  putOffAlarm();
  const pid_t self = getpid();
  pid_t child = -1;
  watcher_->onRead = [&](int fd) {
    rawReceiveNow(fd);
    child = fork();
    if (child == 0) {
      EventLoop::renewAfterFork();
      watcher_.reset();
      alarm_.reset();
      if (!loopServes()) {
        _exit(1);
      }
    }
  };
  rawSend(ends_.second.get(), "x");
  const std::string thrown = thrownBy([] { loop().runOnce(5s); });
  if (getpid() != self) {
    _exit(loopServes() ? 0 : 1);
  }
  EXPECT_EQ(thrown, "<nothing thrown>");
  EXPECT_TRUE(endsWell(child));
}

/// Also of a process whose first thread has ended, which /proc/self no longer tells.
int countDescriptors() {
  int open = 0;
  for (int fd = 0; fd < 1000; ++fd) {
    open += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
  }
  return open;
}

TEST_F(ForkedChild, ClosesALoopThatItInheritedWithItsThread) {
  std::thread([] {
    loop().post([] {});
    EXPECT_TRUE(inChild([]() -> bool {
      std::thread([expected = countDescriptors() - 3] {
        const auto end = std::chrono::steady_clock::now() + 10s;
        while (countDescriptors() != expected && std::chrono::steady_clock::now() < end) {
          std::this_thread::yield();
        }
        _exit(countDescriptors() == expected ? 0 : 1);
      }).detach();
      pthread_exit(nullptr);
    }));
    EXPECT_TRUE(loopServes());
  }).join();
}

TEST_F(ForkedChild, HasItsOwnStop) {
  EXPECT_TRUE(inChild([] {
    EventLoop::renewAfterFork();
    std::thread([&mine = loop()] { mine.stop(); }).join();
    loop().run();
    return true;
  }));
  putOffAlarm();
  EXPECT_FALSE(somethingIsDue());
}

TEST_F(ForkedChild, KeepsItsLoopIfItIsItsOwnAlready) {
  EventLoop::renewAfterFork();
  expectParentUnharmed();
  EXPECT_TRUE(inChild([] {
    EventLoop::renewAfterFork();
    const auto ends = rawPair();
    const Watcher watcher(ends.first.get());
    rawSend(ends.second.get(), "x");
    EventLoop::renewAfterFork();
    loop().dispatch();
    return watcher.reads == 1;
  }));
}

TEST_F(ForkedChild, MayRenewBeforeItHasALoop) {
  std::thread([] {
    EventLoop::renewAfterFork();
    EXPECT_TRUE(loopServes());
  }).join();
}

TEST_F(ForkedChild, KeepsTheOldLoopIfTheKernelRefusesANewOne) {
  EXPECT_TRUE(inChild([] {
    {
      const Faults::Fail fail(Faults::Call::kEpollCreate, EMFILE);
      if (thrownBy([] { EventLoop::renewAfterFork(); }) == "<nothing thrown>") {
        return false;
      }
    }
    const bool refused = isRefused([] { loop().dispatch(); });
    EventLoop::renewAfterFork();
    return refused && loopServes();
  }));
}

}  // namespace
