// Conditions that persist while nothing is done about them.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
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

// --- write readiness that persists ---

class StuckWriter : public testing::Test {
 protected:
  StuckWriter() {
    writer_.onWrite = [this](int) { times_.push_back(Clock::now()); };
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
  Clock::duration shortest = 10s;
  for (int i = 0; i < 5; ++i) {
    turnUntilWrites(writer_.writes + 1);
    shortest = std::min(shortest, times_[times_.size() - 1] - times_[times_.size() - 2]);
  }

  EXPECT_GE(shortest, 100ms);
  EXPECT_LT(shortest, 140ms);
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
  Clock::duration shortest = 10s;
  for (int attempt = 0; attempt < 3 && shortest > 50ms; ++attempt) {
    turnUntilWrites(writer_.writes + 8);
    writer_.control->setWriteInterest(false);
    writer_.control->setWriteInterest(true);
    const auto first = times_.size();
    turnUntilWrites(writer_.writes + 4);
    expectFallingRate(times_, first);
    shortest = times_[first + 3] - times_[first];
  }
  EXPECT_LT(shortest, 50ms);
}

TEST_F(StuckWriter, DoublesItsPausesFromOneMillisecondOn) {
  Clock::duration firstPause = 10s;
  Clock::duration fourPauses = 10s;
  for (int attempt = 0; attempt < 20; ++attempt) {
    writer_.control->setWriteInterest(false);
    writer_.control->setWriteInterest(true);
    const auto first = times_.size();
    turnUntilWrites(writer_.writes + 5);
    firstPause = std::min(firstPause, times_[first + 1] - times_[first]);
    fourPauses = std::min(fourPauses, times_[first + 4] - times_[first]);
  }
  EXPECT_LT(firstPause, 1800us);
  EXPECT_LT(fourPauses, 25ms);
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
  Clock::duration shortest = 10s;
  for (int attempt = 0; attempt < 3 && shortest > 50ms; ++attempt) {
    turnUntilWrites(writer_.writes + 8);
    writer_.control->attach(ends_.first.get());
    writer_.control->setWriteInterest(true);
    const auto first = times_.size();
    turnUntilWrites(writer_.writes + 4);
    shortest = times_[first + 3] - times_[first];
  }
  EXPECT_LT(shortest, 50ms);
}

TEST_F(StuckWriter, IsForgottenWhenDestroyed) {
  turnUntilWrites(4);
  writer_.control.reset();
  EXPECT_EQ(turnFor(40ms), 1);
}

TEST_F(StuckWriter, MayDetachInTheCallbackAfterAPause) {
  writer_.onWrite = [this](int) {
    if (writer_.writes == 5) {
      writer_.control->detach();
    }
  };
  turnUntilWrites(5);
  EXPECT_EQ(turnFor(20ms), 1);
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
    const Faults::Fail fail(Call::kEpollCtl, ENOMEM, 1);
    EXPECT_EQ(thrownBy([] { turnFor(5s); }), "EventLoop: epoll_ctl failed: Cannot allocate memory");
  }
  turnUntilWrites(6);
}

/// A writer whose socket is full after each of its callbacks.
class BusyWriter : public testing::Test {
 protected:
  BusyWriter() {
    setNonBlocking(ends_.first.get());
    writer_.onWrite = [](int fd) {
      while (::send(fd, "x", 1, MSG_NOSIGNAL) == 1) {
      }
    };
    writer_.control->setWriteInterest(true);
  }

  void drain() {
    while (rawReceiveNow(ends_.second.get()) != "<nothing>") {
    }
  }

  std::pair<Fd, Fd> ends_ = rawPair();
  Watcher writer_{ends_.first.get()};
};

TEST_F(BusyWriter, IsNeverSlowed) {
  for (int round = 1; round <= 20; ++round) {
    ASSERT_TRUE(loop().dispatch()) << round;
    EXPECT_EQ(writer_.writes, round);
    EXPECT_FALSE(loop().dispatch());
    drain();
  }
}

TEST_F(BusyWriter, IsAtFullSpeedAgainAfterItWasStuck) {
  const auto filling = writer_.onWrite;
  writer_.onWrite = nullptr;
  ASSERT_TRUE(turnUntil([&] { return writer_.writes == 6; }));
  writer_.onWrite = filling;
  ASSERT_TRUE(turnUntil([&] { return writer_.writes == 7; }));
  for (int round = 8; round <= 20; ++round) {
    drain();
    ASSERT_TRUE(loop().dispatch()) << round;
    EXPECT_EQ(writer_.writes, round);
  }
}

TEST_F(BusyWriter, StartsWithShortPausesAfterProgress) {
  const auto filling = writer_.onWrite;
  std::chrono::steady_clock::duration shortest = 10s;
  for (int attempt = 0; attempt < 3 && shortest > 50ms; ++attempt) {
    writer_.onWrite = nullptr;
    const int before = writer_.writes;
    ASSERT_TRUE(turnUntil([&] { return writer_.writes >= before + 8; }));
    writer_.onWrite = filling;
    ASSERT_TRUE(turnUntil([&] { return writer_.writes >= before + 9; }));
    writer_.onWrite = nullptr;
    drain();
    const auto start = Clock::now();
    ASSERT_TRUE(turnUntil([&] { return writer_.writes >= before + 12; }));
    shortest = Clock::now() - start;
  }
  EXPECT_LT(shortest, 50ms);
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

// --- clients that cannot be accepted ---

/// A process that cannot open another descriptor while it lives.
class OutOfDescriptors {
 public:
  OutOfDescriptors() {
    getrlimit(RLIMIT_NOFILE, &before_);
    rlimit low = before_;
    low.rlim_cur = static_cast<rlim_t>(*openDescriptors().rbegin() + 3);
    setrlimit(RLIMIT_NOFILE, &low);
    for (int fd = dup(0); fd >= 0; fd = dup(0)) {
      fillers_.emplace_back(fd);
    }
  }
  ~OutOfDescriptors() {
    fillers_.clear();
    setrlimit(RLIMIT_NOFILE, &before_);
  }

 private:
  rlimit before_{};
  std::vector<Fd> fillers_;
};

class Listener : public testing::Test {
 protected:
  void acceptInto(std::vector<Fd>& accepted) {
    watcher_.onRead = [this, &accepted](int fd) {
      times_.push_back(Clock::now());
      if (Fd client(::accept(fd, nullptr, nullptr)); client.get() >= 0) {
        accepted.push_back(std::move(client));
      }
    };
  }

  const std::string name_ = uniqueName();
  const Fd socket_ = rawListen(name_, 110, 64);
  Watcher watcher_{socket_.get()};
  Times times_;
  std::vector<Fd> accepted_;
};

TEST_F(Listener, IsCalledAtAFallingRateWhileDescriptorsAreExhausted) {
  const Fd client = rawConnect(name_);
  acceptInto(accepted_);
  const OutOfDescriptors exhausted;
  const int turns = turnFor(500ms);

  EXPECT_TRUE(accepted_.empty());
  expectFallingRate(times_, 1);  // that it listens is found out with the second callback
  EXPECT_LE(watcher_.reads, 13);
  EXPECT_GE(watcher_.reads, 4);
  EXPECT_LE(turns, 40);
}

TEST_F(Listener, AcceptsSoonAfterDescriptorsAreFreeAgain) {
  const Fd client = rawConnect(name_);
  acceptInto(accepted_);
  {
    const OutOfDescriptors exhausted;
    turnFor(400ms);
  }
  EXPECT_TRUE(turnUntil([&] { return accepted_.size() == 1; }, 200ms));
}

TEST_F(Listener, IsAtFullSpeedAgainAfterDescriptorsWereExhausted) {
  std::vector<Fd> clients;
  for (int i = 0; i < 20; ++i) {
    clients.push_back(rawConnect(name_));
  }
  acceptInto(accepted_);
  {
    const OutOfDescriptors exhausted;
    turnFor(100ms);
  }
  ASSERT_TRUE(turnUntil([&] { return accepted_.size() == 1; }));
  for (std::size_t i = 2; i <= clients.size(); ++i) {
    ASSERT_TRUE(loop().dispatch());
    EXPECT_EQ(accepted_.size(), i);
  }
}

TEST_F(Listener, StartsWithShortPausesEachTimeDescriptorsRunOut) {
  Clock::duration shortest = 10s;
  for (int attempt = 0; attempt < 3 && shortest > 50ms; ++attempt) {
    const Fd client = rawConnect(name_);
    const Faults::Fail fail(Call::kEventfd, EMFILE, 9);
    watcher_.onRead = nullptr;
    ASSERT_TRUE(turnUntil([&] { return fail.hits() == 9; }));
    acceptInto(accepted_);
    ASSERT_TRUE(turnUntil([&] { return !accepted_.empty(); }));
    accepted_.clear();
    watcher_.onRead = nullptr;

    const Fd next = rawConnect(name_);
    const Faults::Fail again(Call::kEventfd, EMFILE, 4);
    const auto start = Clock::now();
    ASSERT_TRUE(turnUntil([&] { return again.hits() == 4; }));
    shortest = std::min(shortest, Clock::now() - start);
    acceptInto(accepted_);
    ASSERT_TRUE(turnUntil([&] { return !accepted_.empty(); }));
    accepted_.clear();
  }
  EXPECT_LT(shortest, 50ms);
}

TEST_F(Listener, StartsWithShortPausesAfterAttachingAnew) {
  const Fd client = rawConnect(name_);
  const Faults::Fail fail(Call::kEventfd, EMFILE);
  Clock::duration shortest = 10s;
  for (int attempt = 0; attempt < 3 && shortest > 50ms; ++attempt) {
    const int before = fail.hits();
    ASSERT_TRUE(turnUntil([&] { return fail.hits() >= before + 9; }));
    watcher_.control->attach(socket_.get());
    const auto start = Clock::now();
    ASSERT_TRUE(turnUntil([&] { return fail.hits() >= before + 13; }));
    shortest = Clock::now() - start;
  }
  EXPECT_LT(shortest, 50ms);
}

TEST_F(Listener, IsNeverSlowedWhenItRefusesItsClients) {
  std::vector<Fd> clients;
  for (int i = 0; i < 50; ++i) {
    clients.push_back(rawConnect(name_));
  }
  watcher_.onRead = [](int fd) { Fd(::accept(fd, nullptr, nullptr)); };
  for (const auto& client : clients) {
    ASSERT_TRUE(loop().dispatch());
    EXPECT_EQ(rawReceiveNow(client.get()), "<end>");
  }
}

TEST_F(Listener, IsNotSlowedWhileItAttachesWhatItAccepts) {
  const Fd client = rawConnect(name_);
  const auto ends = rawPair();
  Watcher other;
  watcher_.onRead = [&](int) { other.control->attach(ends.first.get()); };
  const Faults::Fail fail(Call::kEventfd, EMFILE);
  for (int turn = 1; turn <= 20; ++turn) {
    ASSERT_TRUE(loop().dispatch());
    EXPECT_EQ(watcher_.reads, turn);
  }
}

TEST_F(Listener, IsNotSlowedWhileDescriptorsCanBeOpened) {
  const Fd client = rawConnect(name_);
  for (int turn = 1; turn <= 20; ++turn) {
    ASSERT_TRUE(loop().dispatch());
    EXPECT_EQ(watcher_.reads, turn);
  }
}

TEST_F(Listener, TriesTheLimitWithoutKeepingADescriptor) {
  const Fd client = rawConnect(name_);
  const auto before = openDescriptors();
  for (int turn = 0; turn < 5; ++turn) {
    loop().dispatch();
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(Listener, AloneIsSlowedWhileDescriptorsAreExhausted) {
  const auto ends = rawPair();
  Watcher reader(ends.first.get());
  rawSend(ends.second.get(), "left unread");
  const OutOfDescriptors exhausted;
  const Faults::Trace trace;
  for (int turn = 1; turn <= 20; ++turn) {
    ASSERT_TRUE(loop().dispatch());
    EXPECT_EQ(reader.reads, turn);
  }
  EXPECT_EQ(trace.count(Call::kGetsockopt), 1) << "each descriptor is asked about once";
  EXPECT_EQ(trace.count(Call::kEventfd), 0);
}

TEST_F(Listener, CostsADescriptorThatIsReadOnceNoFurtherCall) {
  const auto ends = rawPair();
  Watcher reader;
  rawSend(ends.second.get(), "left unread");
  const Faults::Trace trace;
  for (int round = 0; round < 3; ++round) {
    reader.control->attach(ends.first.get());
    loop().dispatch();
  }
  EXPECT_EQ(reader.reads, 3);
  EXPECT_EQ(trace.count(Call::kGetsockopt), 0);
}

TEST_F(Listener, MayBeDestroyedDuringAPause) {
  const Fd client = rawConnect(name_);
  auto mortal = std::make_unique<Watcher>();
  watcher_.control->detach();
  mortal->control->attach(socket_.get());
  const Faults::Fail fail(Call::kEventfd, EMFILE);
  ASSERT_TRUE(turnUntil([&] { return mortal->reads == 6; }));
  mortal.reset();
  EXPECT_EQ(turnFor(40ms), 1);
}

TEST_F(Listener, IsAskedAgainWhetherItListensAfterAttachingAnew) {
  const auto ends = rawPair();
  rawSend(ends.second.get(), "x");
  const Fd client = rawConnect(name_);
  watcher_.control->attach(ends.first.get());
  loop().dispatch();
  loop().dispatch();
  watcher_.control->attach(socket_.get());
  const Faults::Fail fail(Call::kEventfd, EMFILE);
  const int before = watcher_.reads;
  turnFor(50ms);
  EXPECT_LE(watcher_.reads - before, 9);
}

}  // namespace
