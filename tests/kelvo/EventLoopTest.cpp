// Descriptors: what is reported, and how a registration is changed.

#include "Kelvo/Platform/EventLoop.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "tests/kelvo/Handlers.h"
#include "tests/support/Faults.h"

using Faults::Call;

namespace {

/// A watched socket and its peer.
class Descriptor : public testing::Test {
 protected:
  int fd() const { return ends_.first.get(); }
  int peer() const { return ends_.second.get(); }

  std::pair<Fd, Fd> ends_ = rawPair();
  Watcher watcher_{ends_.first.get()};
};

TEST_F(Descriptor, CausesNothingWhileItHoldsNothing) {
  EXPECT_FALSE(loop().dispatch());
  EXPECT_EQ(watcher_.reads, 0);
  EXPECT_EQ(watcher_.writes, 0);
}

TEST_F(Descriptor, IsHandedToItsHandler) {
  std::vector<int> seen;
  watcher_.onRead = [&](int fd) { seen.push_back(fd); };
  watcher_.onWrite = [&](int fd) { seen.push_back(fd); };
  watcher_.control->setWriteInterest(true);
  rawSend(peer(), "x");
  loop().dispatch();

  EXPECT_THAT(seen, testing::ElementsAre(fd(), fd()));
}

TEST_F(Descriptor, CostsASystemCallOnlyWhenItsWriteInterestChanges) {
  const Faults::Trace trace;
  for (const bool wanted : {false, true, true, false, false}) {
    watcher_.control->setWriteInterest(wanted);
  }
  EXPECT_EQ(trace.count(Call::kEpollCtl), 2);
}

TEST_F(Descriptor, IsReportedAgainWhileSomethingIsLeftUnread) {
  rawSend(peer(), "x");
  for (int turn = 1; turn <= 3; ++turn) {
    EXPECT_TRUE(loop().dispatch());
    EXPECT_EQ(watcher_.reads, turn);
  }
  rawReceiveNow(fd());
  EXPECT_FALSE(loop().dispatch());
}

TEST_F(Descriptor, GetsOneReadThenOneWriteCallbackATurn) {
  std::string calls;
  watcher_.onRead = [&](int fd) { calls += 'r' + rawReceiveNow(fd); };
  watcher_.onWrite = [&](int) { calls += 'w'; };
  watcher_.control->setWriteInterest(true);
  rawSend(peer(), "1");
  rawSend(peer(), "2");

  loop().dispatch();
  EXPECT_EQ(calls, "r1w");
}

TEST_F(Descriptor, ShowsAHangUpOrAnErrorAsAReadEvent) {
  for (const std::size_t left : {0U, 1U}) {  // a pipe's reader, whose writer goes, or the writer
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    Fd ends[] = {Fd(pipeFds[0]), Fd(pipeFds[1])};
    const Watcher watcher(ends[left].get());
    ends[1 - left].reset();

    EXPECT_TRUE(loop().dispatch());
    EXPECT_EQ(watcher.reads, 1);
    EXPECT_EQ(watcher.writes, 0);
  }
}

TEST_F(Descriptor, GivesItsLastDataBeforeItsEnd) {
  std::vector<std::string> received;
  watcher_.onRead = [&](int fd) { received.push_back(rawReceiveNow(fd)); };
  rawSend(peer(), "last");
  ends_.second.reset();

  loop().dispatch();
  loop().dispatch();
  EXPECT_THAT(received, testing::ElementsAre("last", "<end>"));
}

TEST_F(Descriptor, IsReportedAgainWhileMoreClientsWait) {
  const auto name = uniqueName();
  const Fd listener = rawListen(name);
  Watcher watcher(listener.get());
  std::vector<Fd> accepted;
  watcher.onRead = [&](int fd) { accepted.emplace_back(::accept(fd, nullptr, nullptr)); };
  const Fd clients[] = {rawConnect(name), rawConnect(name), rawConnect(name)};

  for (std::size_t turn = 1; turn <= std::size(clients); ++turn) {
    EXPECT_TRUE(loop().dispatch());
    EXPECT_EQ(accepted.size(), turn);
  }
  EXPECT_FALSE(loop().dispatch());
}

TEST_F(Descriptor, IsServedHoweverManyAreReadyAtOnce) {
  std::vector<std::pair<Fd, Fd>> pairs;
  std::vector<std::unique_ptr<Watcher>> watchers;
  for (int i = 0; i < 150; ++i) {
    pairs.push_back(rawPair());
    watchers.push_back(std::make_unique<Watcher>(pairs.back().first.get()));
    watchers.back()->onRead = [](int fd) { rawReceiveNow(fd); };
    rawSend(pairs.back().second.get(), "x");
  }
  turnUntilIdle();

  for (const auto& watcher : watchers) {
    EXPECT_EQ(watcher->reads, 1);
  }
}

// --- the control ---

class Control : public Descriptor {};

TEST_F(Control, IsAFreshOneEachTime) {
  EXPECT_NE(Kelvo::Platform::getFdControl(&watcher_).get(),
            Kelvo::Platform::getFdControl(&watcher_).get());
}

TEST_F(Control, TellsItsDescriptor) {
  EXPECT_EQ(Watcher().control->fd(), -1);
  EXPECT_EQ(watcher_.control->fd(), fd());
  watcher_.control->detach();
  EXPECT_EQ(watcher_.control->fd(), -1);
}

TEST_F(Control, LeavesTheDescriptorsFlagsAlone) {
  for (const int flags : {O_RDWR, O_RDWR | O_NONBLOCK}) {
    const auto ends = rawPair();
    fcntl(ends.first.get(), F_SETFL, flags);
    Watcher watcher(ends.first.get());
    watcher.control->setWriteInterest(true);

    EXPECT_EQ(fcntl(ends.first.get(), F_GETFL), flags);
    EXPECT_EQ(fcntl(ends.first.get(), F_GETFD), 0);
    watcher.control->detach();
    EXPECT_EQ(fcntl(ends.first.get(), F_GETFL), flags);
  }
}

TEST_F(Control, WatchesANewDescriptorInsteadOfTheOld) {
  const auto others = rawPair();
  watcher_.control->attach(others.first.get());
  EXPECT_EQ(watcher_.control->fd(), others.first.get());

  rawSend(peer(), "old");
  EXPECT_FALSE(loop().dispatch());
  rawSend(others.second.get(), "new");
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(watcher_.reads, 1);
}

TEST_F(Control, AttachesTheSameDescriptorAnew) {
  watcher_.control->attach(fd());
  rawSend(peer(), "x");

  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(watcher_.control->fd(), fd());
}

TEST_F(Control, HasWriteInterestOffAfterAttach) {
  watcher_.control->setWriteInterest(true);
  const auto others = rawPair();
  watcher_.control->attach(others.first.get());
  EXPECT_FALSE(loop().dispatch());

  watcher_.control->setWriteInterest(true);
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(watcher_.writes, 1);
}

TEST_F(Control, ReportsWriteReadinessOnlyWhileInterestIsOn) {
  EXPECT_FALSE(loop().dispatch());
  watcher_.control->setWriteInterest(true);
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(watcher_.writes, 1);
  EXPECT_EQ(watcher_.reads, 0);

  watcher_.control->setWriteInterest(false);
  EXPECT_FALSE(loop().dispatch());
  EXPECT_EQ(watcher_.writes, 1);
}

TEST_F(Control, DropsAWriteEventWhoseInterestTheReadCallbackSwitchedOff) {
  watcher_.control->setWriteInterest(true);
  watcher_.onRead = [&](int) { watcher_.control->setWriteInterest(false); };
  rawSend(peer(), "x");

  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(watcher_.reads, 1);
  EXPECT_EQ(watcher_.writes, 0);
}

TEST_F(Control, KeepsReadInterestWhileWriteInterestChanges) {
  rawSend(peer(), "x");
  watcher_.control->setWriteInterest(true);
  loop().dispatch();
  EXPECT_EQ(watcher_.reads, 1);
  watcher_.control->setWriteInterest(false);
  loop().dispatch();
  EXPECT_EQ(watcher_.reads, 2);
}

TEST_F(Control, DoesNothingWithoutADescriptor) {
  Watcher idle;
  const Faults::Trace trace;
  idle.control->setWriteInterest(true);
  idle.control->detach();
  idle.control->detach();
  EXPECT_TRUE(trace.calls().empty());

  const auto others = rawPair();
  idle.control->attach(others.first.get());
  EXPECT_FALSE(loop().dispatch());
  EXPECT_EQ(idle.writes, 0);
}

TEST_F(Control, ThrowsIfWriteInterestIsRefusedAndMayTryAgain) {
  {
    const Faults::Fail fail(Call::kEpollCtl, ENOSPC, 1);
    EXPECT_EQ(thrownBy([&] { watcher_.control->setWriteInterest(true); }),
              "EventLoop: epoll_ctl failed: No space left on device");
  }
  EXPECT_FALSE(loop().dispatch());
  watcher_.control->setWriteInterest(true);
  EXPECT_TRUE(loop().dispatch());
}

TEST_F(Control, HasNothingAttachedAfterAttachFailed) {
  rawSend(peer(), "x");
  const Fd file(memfd_create("file", 0));
  EXPECT_EQ(thrownBy([&] { watcher_.control->attach(file.get()); }),
            "EventLoop: epoll_ctl failed: Operation not permitted");
  EXPECT_EQ(thrownBy([&] { watcher_.control->attach(-1); }),
            "EventLoop: epoll_ctl failed: Bad file descriptor");
  EXPECT_EQ(watcher_.control->fd(), -1);
  EXPECT_FALSE(loop().dispatch());
  const Faults::Trace trace;
  watcher_.control->setWriteInterest(true);
  EXPECT_TRUE(trace.calls().empty());
  watcher_.control->attach(fd());
  EXPECT_TRUE(loop().dispatch());
}

TEST_F(Control, RefusesADescriptorThatIsAttachedElsewhereAndLeavesThatAlone) {
  Watcher second;
  EXPECT_EQ(thrownBy([&] { second.control->attach(fd()); }),
            "EventLoop: epoll_ctl failed: File exists");
  EXPECT_EQ(second.control->fd(), -1);

  rawSend(peer(), "x");
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(watcher_.reads, 1);
  EXPECT_EQ(second.reads, 0);
}

TEST_F(Control, TakesTheDescriptorOutOfTheKernelsSetOnDetach) {
  const Faults::Trace trace;
  watcher_.control->detach();
  rawSend(peer(), "x");

  ASSERT_EQ(trace.count(Call::kEpollCtl), 1);
  EXPECT_EQ(trace.of(Call::kEpollCtl)[0].size, static_cast<std::size_t>(EPOLL_CTL_DEL));
  EXPECT_EQ(trace.of(Call::kEpollCtl)[0].fd, fd());
  EXPECT_FALSE(loop().dispatch());
  EXPECT_FALSE(somethingIsDue());
}

TEST_F(Control, DetachesWhenReleased) {
  rawSend(peer(), "x");
  watcher_.control.reset();

  EXPECT_FALSE(somethingIsDue());
  EXPECT_FALSE(loop().dispatch());
  Watcher second(fd());
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(watcher_.reads, 0);
}

TEST_F(Control, StaysAttachedWhileAHandleToItIsLeft) {
  auto second = watcher_.control;
  watcher_.control.reset();
  rawSend(peer(), "x");

  EXPECT_TRUE(loop().dispatch());
  second.reset();
}

TEST_F(Control, NeverFailsToDetach) {
  ends_.first.reset();
  EXPECT_NO_THROW(watcher_.control->detach());
  EXPECT_EQ(watcher_.control->fd(), -1);

  const auto others = rawPair();
  watcher_.control->attach(others.first.get());
  const Faults::Fail fail(Call::kEpollCtl, ENOMEM);
  EXPECT_NO_THROW(watcher_.control->detach());
  EXPECT_EQ(fail.hits(), 1);
}

TEST_F(Control, CausesNoEventsForADuplicateThatLivesOnAfterDetach) {
  const Fd duplicate(dup(fd()));
  watcher_.control->detach();
  ends_.first.reset();
  rawSend(peer(), "x");

  EXPECT_FALSE(somethingIsDue());
  EXPECT_FALSE(loop().dispatch());
}

class Modest : public Kelvo::Platform::FdEventHandler {
 public:
  void readFdEvent(int /*fd*/) override {}
};

TEST_F(Control, AcceptsAHandlerThatDoesNotWrite) {
  Modest modest;
  EXPECT_NO_THROW(modest.writeFdEvent(3));
  EXPECT_FALSE(modest.handleFdException(3));
}

// --- several events in one turn ---

/// Two watched sockets that are both ready. Which of them is served first is the kernel's choice;
/// `other` is the one that is not calling.
class Batch : public testing::Test {
 protected:
  Batch() {
    for (auto& ends : ends_) {
      watchers_.push_back(std::make_unique<Watcher>(ends.first.get()));
    }
  }

  /// Makes both ready; the first that is called acts on the other.
  void onFirst(const std::function<void(std::size_t other)>& action) {
    for (std::size_t i = 0; i < 2; ++i) {
      watchers_[i]->onRead = [=](int fd) {
        rawReceiveNow(fd);
        ++reads_;
        if (reads_ == 1) {
          action(1 - i);
        }
      };
      rawSend(ends_[i].second.get(), "x");
    }
  }

  /// Puts a fresh, silent socket under a closed one's number.
  void reuseNumber(std::size_t i) {
    const int number = ends_[i].first.get();
    ends_[i].first.reset();
    auto fresh = rawPair();
    if (fresh.first.get() != number) {
      ASSERT_EQ(dup2(fresh.first.get(), number), number);
      fresh.first.reset();
    }
    fresh.first.release();
    ends_[i].first = Fd(number);
    ends_[i].second = std::move(fresh.second);
  }

  std::pair<Fd, Fd> ends_[2] = {rawPair(), rawPair()};
  std::vector<std::unique_ptr<Watcher>> watchers_;
  std::unique_ptr<Watcher> successor_;
  int reads_ = 0;
};

TEST_F(Batch, ReachesEveryoneWhoIsReady) {
  onFirst([](std::size_t) {});
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(reads_, 2);
}

TEST_F(Batch, SkipsAHandlerThatAnotherDestroyed) {
  onFirst([&](std::size_t other) { watchers_[other].reset(); });
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(reads_, 1);
  EXPECT_FALSE(loop().dispatch());
}

TEST_F(Batch, GoesOnAfterAHandlerDestroyedItself) {
  onFirst([&](std::size_t other) { watchers_[1 - other].reset(); });
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(reads_, 2);
}

TEST_F(Batch, SkipsAHandlerThatAnotherDetached) {
  onFirst([&](std::size_t other) { watchers_[other]->control->detach(); });
  loop().dispatch();
  EXPECT_EQ(reads_, 1);
}

TEST_F(Batch, SkipsADescriptorThatWasAttachedAnewAndReportsItNextTurn) {
  onFirst([&](std::size_t other) { watchers_[other]->control->attach(ends_[other].first.get()); });
  loop().dispatch();
  EXPECT_EQ(reads_, 1);
  loop().dispatch();
  EXPECT_EQ(reads_, 2);
}

TEST_F(Batch, DoesNotMistakeANewSocketForTheOneWhoseNumberItGot) {
  std::size_t replaced = 0;
  onFirst([&](std::size_t other) {
    replaced = other;
    watchers_[other].reset();
    reuseNumber(other);
    successor_ = std::make_unique<Watcher>(ends_[other].first.get());
  });
  loop().dispatch();
  EXPECT_EQ(successor_->reads, 0) << "an event of the old socket reached the new one";

  rawSend(ends_[replaced].second.get(), "x");
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(successor_->reads, 1);
}

TEST_F(Batch, DoesNotMistakeANewSocketOfTheSameControlEither) {
  onFirst([&](std::size_t other) {
    watchers_[other]->control->detach();
    reuseNumber(other);
    watchers_[other]->control->attach(ends_[other].first.get());
  });
  loop().dispatch();
  EXPECT_EQ(reads_, 1);
}

TEST_F(Batch, DoesNotMistakeANewSocketForOneThatWasClosedWithoutDetaching) {
  std::size_t replaced = 0;
  onFirst([&](std::size_t other) {
    replaced = other;
    reuseNumber(other);
    successor_ = std::make_unique<Watcher>(ends_[other].first.get());
  });
  loop().dispatch();
  EXPECT_EQ(reads_, 1);
  EXPECT_EQ(successor_->reads, 0);

  watchers_[replaced].reset();  // takes nothing from its successor
  rawSend(ends_[replaced].second.get(), "x");
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(successor_->reads, 1);
}

/// One socket that is ready for reading and for writing.
class DoubleEvent : public Descriptor {
 protected:
  DoubleEvent() {
    watcher_.control->setWriteInterest(true);
    rawSend(peer(), "x");
  }
};

TEST_F(DoubleEvent, LosesItsWriteHalfWhenTheReadCallbackDetaches) {
  watcher_.onRead = [&](int) { watcher_.control->detach(); };
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(watcher_.writes, 0);
}

TEST_F(DoubleEvent, LosesItsWriteHalfWhenTheReadCallbackDestroysTheHandler) {
  watcher_.control->detach();
  auto mortal = std::make_unique<Watcher>(fd());
  int writes = 0;
  mortal->control->setWriteInterest(true);
  mortal->onRead = [&](int) { mortal.reset(); };
  mortal->onWrite = [&](int) { ++writes; };

  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(mortal, nullptr);
  EXPECT_EQ(writes, 0);
}

TEST_F(DoubleEvent, LosesItsWriteHalfWhenTheReadCallbackAttachesAnew) {
  watcher_.onRead = [&](int fd) {
    rawReceiveNow(fd);
    watcher_.control->attach(fd);
    watcher_.control->setWriteInterest(true);
  };
  loop().dispatch();
  EXPECT_EQ(watcher_.writes, 0);
  loop().dispatch();
  EXPECT_EQ(watcher_.writes, 1);
}

TEST_F(DoubleEvent, LetsTheWriteCallbackDestroyTheHandler) {
  watcher_.control->detach();
  auto mortal = std::make_unique<Watcher>(fd());
  mortal->control->setWriteInterest(true);
  mortal->onWrite = [&](int) { mortal.reset(); };

  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(mortal, nullptr);
  EXPECT_FALSE(loop().dispatch());
}

TEST_F(DoubleEvent, GivesBothHalvesToNobodyOnceTheControlIsGone) {
  watcher_.onRead = [&](int) { watcher_.control.reset(); };
  EXPECT_TRUE(loop().dispatch());
  EXPECT_EQ(watcher_.writes, 0);
  EXPECT_FALSE(loop().dispatch());
}

}  // namespace
