#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <thread>

#include "Api/Json/Server.h"

#include "tests/kelvo/Handlers.h"
#include "tests/support/Faults.h"
#include "tests/support/Memory.h"
#include "tests/support/Support.h"

// Its owner has closed the descriptor first, and another has been given the number.
TEST(Registration, ThatIsOutdatedLeavesItsSuccessorAlone) {
  Fd first(eventfd(0, EFD_NONBLOCK));
  Watcher outdated(first.get());
  const int number = first.get();
  first.reset();
  const Fd second(eventfd(0, EFD_NONBLOCK));
  ASSERT_EQ(second.get(), number);
  const Watcher successor(second.get());

  outdated.control->setWriteInterest(true);
  EXPECT_FALSE(loop().dispatch());
  ASSERT_EQ(eventfd_write(second.get(), 1), 0);
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(successor.reads, 1);
  EXPECT_EQ(successor.writes, 0);

  outdated.control->detach();
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(successor.reads, 2);
  EXPECT_EQ(outdated.reads + outdated.writes, 0);
}

// A duplicate keeps what was closed open for the kernel, which goes on reporting it.
TEST(Registration, ThatIsOutdatedIsNotCalledThroughADuplicate) {
  Fd first(eventfd(0, EFD_NONBLOCK));
  const Watcher outdated(first.get());
  const Fd duplicate(dup(first.get()));
  const int number = first.get();
  first.reset();
  const Fd second(eventfd(0, EFD_NONBLOCK));
  ASSERT_EQ(second.get(), number);
  const Watcher successor(second.get());

  ASSERT_EQ(eventfd_write(duplicate.get(), 1), 0);
  EXPECT_TRUE(somethingIsDue());
  EXPECT_FALSE(loop().dispatch());
  EXPECT_EQ(outdated.reads + successor.reads, 0);
}

TEST(Registration, OfAClosedDescriptorHoldsNoTimerBackOnceItsNumberServesAnother) {
  Fd first(eventfd(0, EFD_NONBLOCK));
  const Watcher outdated(first.get());
  Alarm alarm(&outdated);
  alarm.timer->arm(0);
  letPass(std::chrono::milliseconds(1));
  loop().dispatch();
  ASSERT_EQ(alarm.fired, 0);

  const int number = first.get();
  first.reset();
  const Fd second(eventfd(0, EFD_NONBLOCK));
  ASSERT_EQ(second.get(), number);
  const Watcher successor(second.get());
  EXPECT_TRUE(turnUntil([&] { return alarm.fired == 1; }));
}

// On a loop of its own, which has no room yet for so large a number.
TEST(Registration, WithoutMemoryIsRefusedAndLeavesNothing) {
  const Fd event(eventfd(1, EFD_NONBLOCK));
  const Fd far(dup2(event.get(), 900));
  ASSERT_EQ(far.get(), 900);
  std::thread([&far] {
    Watcher watcher;
    const auto attach = [&] { watcher.control->attach(far.get()); };

    bool refused = false;
    try {
      const Faults::NoMemory exhausted;
      attach();
    } catch (const std::bad_alloc&) {
      refused = true;
    }

    EXPECT_TRUE(refused);
    EXPECT_EQ(watcher.control->fd(), -1);
    EXPECT_FALSE(loop().dispatch());
    EXPECT_EQ(thrownBy(attach), "<nothing thrown>");
    EXPECT_TRUE(loop().dispatch());
  }).join();
}

TEST(Pause, EndsAtItsOwnRateWhileTheKernelRefusesToEndIt) {
  auto [socket, peer] = rawPair();
  Watcher watcher(socket.get());
  watcher.onWrite = [&](int) { watcher.deferWriteEvent(); };
  watcher.control->setWriteInterest(true);
  ASSERT_TRUE(turnUntil([&] { return watcher.writes == 6; }));  // pauses of 1, 2, 4, 8, 16 ms

  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(150);
  const int before = watcher.writes;
  {
    const Faults::Fail refusal(Faults::Call::kEpollCtl, ENOMEM);
    while (std::chrono::steady_clock::now() < end) {
      thrownBy([] { loop().runOnce(std::chrono::milliseconds(10)); });
    }
    EXPECT_GE(refusal.hits(), 1);
    EXPECT_LE(refusal.hits(), 10);
  }
  EXPECT_TRUE(turnUntil([&] { return watcher.writes > before + 1; }));
}

TEST(Turn, HasCalledSomebodyEvenIfItsLastTimerIsWithheld) {
  const Fd event(eventfd(0, EFD_NONBLOCK));
  const Watcher attached(event.get());
  Alarm first;
  Alarm withheld(&attached);
  first.timer->arm(0);
  withheld.timer->arm(0);
  letPass(std::chrono::milliseconds(1));

  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(first.fired, 1);
  EXPECT_EQ(withheld.fired, 0);
}

// A child that is forked inside a callback comes back to its parent's loop in the middle of a turn.
TEST(Turn, EndsInAChildThatACallbackHasForked) {
  const Fd event(eventfd(1, EFD_NONBLOCK));
  const Fd other(eventfd(1, EFD_NONBLOCK));
  Watcher first(event.get());
  Watcher second(other.get());
  pid_t child = -1;
  first.onRead = second.onRead = [&](int) { child = child == -1 ? fork() : child; };

  const std::string thrown = thrownBy([] { loop().dispatch(); });
  if (child == 0) {
    _exit(thrown != "<nothing thrown>" && first.reads + second.reads == 1 ? 0 : 1);
  }
  EXPECT_TRUE(endsWell(child));
  EXPECT_EQ(first.reads + second.reads, 2);
}
