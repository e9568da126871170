#include "Api/Json/Async.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <limits>
#include <memory>
#include <utility>

#include "Kelvo/Exception.h"
#include "tests/scripted/Script.h"

using Faults::Call;
using Faults::Fail;

namespace {

/// A sender with its insides open, which notes every termination that comes through the override.
class OpenSender : public Tovik::AsyncSender {
 public:
  void readFdEvent(int /*fd*/) override {}
  void terminateConnection() override {
    Script::current()->note("terminate");
    AsyncSender::terminateConnection();
    if (whenTerminated) {
      std::exchange(whenTerminated, nullptr)();
    }
  }
  std::function<void()> whenTerminated;  // once
  std::size_t waiting() const { return sendQueue_.size(); }
};

class AsyncSender : public ::testing::Test {
 protected:
  /// Gives the sender a descriptor, which appears as "a", and its control the number 1.
  void attach() {
    auto [fd, peer] = Peer::pair();
    sender->setFd(fd);
    peers.push_back(std::move(peer));
    script.take();
  }
  void send(const char* text) {
    Tovik::Message msg;
    msg.Parse(text);
    sender->asyncSendMsg(msg);
  }
  /// Leaves one message that the socket did not take.
  void leaveBacklog() {
    const Fail full(Call::kWrite, EAGAIN);
    send("{}");
    script.take();
  }

  Script script;
  std::vector<Peer> peers;
  std::unique_ptr<OpenSender> sender = std::make_unique<OpenSender>();
};

TEST_F(AsyncSender, TakesADescriptorByTerminatingThenAskingForAControlThenAttaching) {
  const auto [fd, peer] = Peer::pair();
  sender->setFd(fd);
  EXPECT_EQ(script.take(), (Lines{"terminate", "getFdControl 1", "attach 1 a"}));
  EXPECT_EQ(script.watch(1).handler, sender.get());
  EXPECT_EQ(script.watch(1).fd, fd);
}

TEST_F(AsyncSender, WritesNothingAndWantsNoWriteEventsWhenItTakesADescriptor) {
  send(R"({"x":1})");
  EXPECT_EQ(script.take(), Lines{});
  const auto [fd, peer] = Peer::pair();
  sender->setFd(fd);
  EXPECT_EQ(script.take(), (Lines{"terminate", "getFdControl 1", "attach 1 a"}));
  EXPECT_EQ(sender->waiting(), 1U);
  send(R"({"x":2})");
  EXPECT_EQ(script.take(), (Lines{R"(write a {"x":1})", R"(write a {"x":2})", "interest 1 off"}));
}

TEST_F(AsyncSender, DetachesThenReleasesTheControlThenClosesThenDropsTheQueue) {
  attach();
  leaveBacklog();
  const int fd = script.fd('a');
  script.whenReleasing = [&] {
    EXPECT_FALSE(sender->isAttached());
    EXPECT_NE(::fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(sender->waiting(), 1U);
    script.note("the queue is there");
  };
  script.whenClosing = [&] {
    EXPECT_EQ(sender->waiting(), 1U);
    script.note("the queue is still there");
  };
  sender->terminateConnection();
  EXPECT_EQ(script.take(), (Lines{"terminate", "detach 1", "the queue is there", "release 1",
                                  "the queue is still there", "close a"}));
  EXPECT_EQ(sender->waiting(), 0U);
}

TEST_F(AsyncSender, AsksTheControlForTheDescriptorAndLogsItBeforeItDetaches) {
  attach();
  const std::string fd = std::to_string(script.fd('a'));
  setLevels(2);
  script.showsDescriptorQueries = true;
  sender->terminateConnection();
  EXPECT_EQ(script.take(), (Lines{"terminate", "fd 1", "stream",
                                  "output 1 Api/Json/Async terminateConnection: "
                                  "AsyncSender::terminateConnection(): fd = " +
                                      fd,
                                  "streamGone", "detach 1", "release 1", "close a"}));
}

TEST_F(AsyncSender, TerminatesWithoutADescriptorByDoingNothingAndKeepsTheQueue) {
  send("{}");
  setLevels(0xF);
  script.take();
  sender->terminateConnection();
  EXPECT_EQ(script.take(), Lines{"terminate"});
  EXPECT_EQ(sender->waiting(), 1U);
}

TEST_F(AsyncSender, TerminatesASecondTimeByDoingNothing) {
  attach();
  sender->terminateConnection();
  script.take();
  setLevels(0xF);
  sender->terminateConnection();
  EXPECT_EQ(script.take(), Lines{"terminate"});
}

TEST_F(AsyncSender, IsDestroyedThroughItsOwnTerminationAndNoOverride) {
  attach();
  leaveBacklog();
  sender.reset();
  EXPECT_EQ(script.take(), (Lines{"detach 1", "release 1", "close a"}));
}

TEST_F(AsyncSender, IsDestroyedSilentlyWithoutADescriptor) {
  setLevels(0xF);
  sender.reset();
  EXPECT_EQ(script.take(), Lines{});
}

TEST_F(AsyncSender, LetsTheOldDescriptorGoBeforeItTakesAnother) {
  attach();
  leaveBacklog();
  const auto [fd, peer] = Peer::pair();
  sender->setFd(fd);
  EXPECT_EQ(script.take(), (Lines{"terminate", "detach 1", "release 1", "close a", "getFdControl 2",
                                  "attach 2 b"}));
  EXPECT_EQ(sender->waiting(), 0U);
}

TEST_F(AsyncSender, LeavesADescriptorThatTheLoopRefusesToItsCaller) {
  const auto [fd, peer] = Peer::pair();
  script.refusesToAttach = true;
  EXPECT_THROW(sender->setFd(fd), Kelvo::Exception);
  EXPECT_EQ(script.take(),
            (Lines{"terminate", "getFdControl 1", "attach 1 a refused", "release 1"}));
  EXPECT_FALSE(sender->isAttached());
  sender.reset();
  EXPECT_EQ(script.take(), Lines{});
  EXPECT_EQ(::close(fd), 0);
}

TEST_F(AsyncSender, SwitchesWriteInterestOffOnceTheQueueIsEmpty) {
  attach();
  send("{}");
  EXPECT_EQ(script.take(), (Lines{"write a {}", "interest 1 off"}));
  EXPECT_EQ(peers[0].receive(), "{}");
}

TEST_F(AsyncSender, SwitchesWriteInterestOffWhenItFlushesAnEmptyQueue) {
  attach();
  sender->flushQueue();
  EXPECT_EQ(script.take(), Lines{"interest 1 off"});
}

TEST_F(AsyncSender, WantsWriteEventsFromTheFirstWriteThatMustWaitToTheFlushThatEmptiesTheQueue) {
  attach();
  {
    const Fail full(Call::kWrite, EAGAIN);
    send("1");
    send("2");
  }
  EXPECT_EQ(script.take(),
            (Lines{"write a 1 fails", "interest 1 on", "write a 1 fails", "interest 1 on"}));
  {
    const Fail full(Call::kWrite, EAGAIN, 1, 1);
    script.writable(script.fd('a'));
  }
  EXPECT_EQ(script.take(), (Lines{"write a 1", "write a 2 fails", "interest 1 on"}));
  EXPECT_EQ(sender->waiting(), 1U);
  script.writable(script.fd('a'));
  EXPECT_EQ(script.take(), (Lines{"write a 2", "interest 1 off"}));
  EXPECT_FALSE(script.watch(1).writeInterest);
}

TEST_F(AsyncSender, LogsNothingWhenTheSocketIsFull) {
  attach();
  leaveBacklog();
  setLevels(1);
  const Fail full(Call::kWrite, EAGAIN);
  script.writable(script.fd('a'));
  EXPECT_EQ(script.take(), (Lines{"write a {} fails", "interest 1 on"}));
}

TEST_F(AsyncSender, LogsAnotherWriteErrorBeforeItWantsWriteEvents) {
  attach();
  setLevels(1);
  const Fail broken(Call::kWrite, ENOBUFS);
  send("{}");
  EXPECT_EQ(script.take(),
            (Lines{"write a {} fails", "stream", "strerror",
                   "output 0 Api/Json/Async flushQueue: "
                   "AsyncSender::flushQueue(): write error No buffer space available",
                   "streamGone", "interest 1 on"}));
  EXPECT_TRUE(sender->isAttached());
  EXPECT_EQ(sender->waiting(), 1U);
}

TEST_F(AsyncSender, TerminatesThroughTheOverrideWhenThePeerIsGoneAndTouchesNothingAfter) {
  attach();
  leaveBacklog();
  setLevels(1);
  peers[0].hangUp();
  send("1");
  EXPECT_EQ(script.take(),
            (Lines{"write a {} fails", "terminate", "detach 1", "release 1", "close a"}));
  EXPECT_EQ(sender->waiting(), 0U);
  send("2");
  EXPECT_EQ(script.take(), Lines{});
  EXPECT_EQ(sender->waiting(), 1U);
}

TEST_F(AsyncSender, LeavesAConnectionAloneThatItsOverrideMakesAfterTheLossOfOne) {
  attach();
  const auto [fd, peer] = Peer::pair();
  sender->whenTerminated = [&, next = fd] { sender->setFd(next); };
  const Fail gone(Call::kWrite, EPIPE, 1);
  send("{}");
  EXPECT_EQ(script.take(), (Lines{"write a {} fails", "terminate", "detach 1", "release 1",
                                  "close a", "terminate", "getFdControl 2", "attach 2 b"}));
}

TEST_F(AsyncSender, TakesAnyWriteThatDidNotFailForAWholeRecord) {
  attach();
  script.writesFallShort = true;
  send(R"({"x":1})");
  EXPECT_EQ(script.take(), (Lines{R"(write a {"x":1})", "interest 1 off"}));
  send("{}");
  EXPECT_EQ(script.take(), (Lines{"write a {}", "interest 1 off"}));
}

TEST_F(AsyncSender, TakesAWriteOfNothingForAWholeRecord) {
  attach();
  Tovik::Message unspeakable;
  unspeakable.SetDouble(std::numeric_limits<double>::quiet_NaN());
  sender->asyncSendMsg(unspeakable);
  EXPECT_EQ(script.take(), (Lines{"write a ", "interest 1 off"}));
  EXPECT_EQ(sender->waiting(), 0U);
}

TEST_F(AsyncSender, LogsTheTextThenTheQueueThenWrites) {
  attach();
  setLevels(0xC);
  send("{}");
  EXPECT_EQ(
      script.take(),
      (Lines{"stream", "output 3 Api/Json/Async asyncSendMsg: AsyncSender::asyncSendMSg() -> {}",
             "streamGone", "stream",
             "output 2 Api/Json/Async flushQueue: AsyncSender::flushQueue(), queue size = 1",
             "streamGone", "write a {}", "interest 1 off"}));
}

TEST_F(AsyncSender, FlushesNothingAndLogsNothingWithoutADescriptor) {
  send("{}");
  setLevels(0xF);
  script.take();
  sender->flushQueue();
  sender->writeFdEvent(7);
  EXPECT_EQ(script.take(), Lines{});
}

TEST_F(AsyncSender, TakesAWriteEventForAFlushOfTheControlsDescriptor) {
  attach();
  leaveBacklog();
  sender->writeFdEvent(-7);
  EXPECT_EQ(script.take(), (Lines{"write a {}", "interest 1 off"}));
}

TEST_F(AsyncSender, AsksTheControlForTheDescriptorAtEachRead) {
  attach();
  script.showsDescriptorQueries = true;
  peers[0].send("{}");
  Kelvo::String text;
  EXPECT_EQ(sender->asyncRead(text), 0);
  EXPECT_EQ(script.take(), (Lines{"fd 1", "read a 4095"}));
}

TEST_F(AsyncSender, ReadsOnAfterAFullBufferUntilNothingIsLeftAndLogsNothing) {
  attach();
  setLevels(0xF);
  peers[0].send(std::string(4095, ' '));
  Kelvo::String text;
  EXPECT_EQ(sender->asyncRead(text), 0);
  EXPECT_EQ(script.take(), (Lines{"read a 4095", "read a 4095 fails"}));
  EXPECT_EQ(text.size(), 4095U);
}

TEST_F(AsyncSender, ReadsOnceWhenTheBufferIsNotFull) {
  attach();
  peers[0].send(std::string(4094, ' '));
  peers[0].send("{}");
  Kelvo::String text;
  EXPECT_EQ(sender->asyncRead(text), 0);
  EXPECT_EQ(script.take(), Lines{"read a 4095"});
}

TEST_F(AsyncSender, LogsAReadErrorAndLeavesTheEndToItsOwner) {
  attach();
  setLevels(1);
  const Fail broken(Call::kRead, ECONNRESET);
  Kelvo::String text;
  EXPECT_EQ(sender->asyncRead(text), -1);
  EXPECT_EQ(script.take(),
            (Lines{"read a 4095 fails", "stream", "strerror",
                   "output 0 Api/Json/Async asyncRead: "
                   "AsyncSender::asynRead(): read failed -> Connection reset by peer",
                   "streamGone"}));
}

TEST_F(AsyncSender, ReadsNothingWithoutADescriptor) {
  setLevels(0xF);
  Kelvo::String text("before");
  EXPECT_EQ(sender->asyncRead(text), -1);
  EXPECT_EQ(script.take(), Lines{});
  EXPECT_EQ(text, Kelvo::String("before"));
}

TEST_F(AsyncSender, ClearsItsQueueAndTouchesNothingElse) {
  attach();
  leaveBacklog();
  sender->clearQueue();
  EXPECT_EQ(script.take(), Lines{});
  EXPECT_EQ(sender->waiting(), 0U);
  EXPECT_TRUE(sender->isAttached());
}

TEST_F(AsyncSender, LeavesExceptionsToTheBaseLibrary) {
  Kelvo::Platform::FdEventHandler& handler = *sender;
  EXPECT_FALSE(handler.handleFdException(3));
  EXPECT_EQ(script.take(), Lines{"base handleFdException"});
}

}  // namespace
