#include "Api/Json/Connection.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "Kelvo/Exception.h"
#include "tests/scripted/Script.h"

using Faults::Call;
using Faults::Fail;

namespace {

class Connection : public ::testing::Test {
 protected:
  /// Makes the connection. Its socket appears as "a", its control has the number 1.
  void make() {
    auto [ours, theirs] = Peer::pair();
    fd = ours;
    peers.push_back(std::move(theirs));
    connection = std::make_unique<Tovik::Connection>(
        fd, [this, farewell = Farewell("handlerGone")](Tovik::Connection&, const Tovik::Message&) {
          script.note("handle");
        });
  }
  void receive(const char* record) {
    peers[0].send(record);
    script.readable(fd);
  }
  void subscribe() {
    receive(R"({"command":"set","notification":true})");
    peers[0].receive();
    script.take();
  }

  Script script;
  std::vector<Peer> peers;
  int fd = -1;
  std::unique_ptr<Tovik::Connection> connection;
};

TEST_F(Connection, AttachesAsTheLastStepOfItsConstruction) {
  script.whenAttaching = [&](Kelvo::Platform::FdEventHandler* handler) {
    auto* whole = dynamic_cast<Tovik::Connection*>(handler);
    ASSERT_NE(whole, nullptr);
    EXPECT_EQ(typeid(*whole), typeid(Tovik::Connection));
    Tovik::Message msg;
    msg.Parse("{}");
    EXPECT_TRUE(whole->sendMsg(msg));
  };
  make();
  EXPECT_EQ(script.take(), (Lines{"getFdControl 1", "attach 1 a"}));
  EXPECT_EQ(script.watch(1).handler, connection.get());
}

TEST_F(Connection, LeavesADescriptorThatTheLoopRefusesToItsCaller) {
  script.refusesToAttach = true;
  script.showsHandlersEnds = true;
  EXPECT_THROW(make(), Kelvo::Exception);
  EXPECT_EQ(script.take(), (Lines{"getFdControl 1", "attach 1 a refused", "release 1",
                                  "handlerGone", "base ~FdEventHandler"}));
  EXPECT_EQ(::close(fd), 0);
}

TEST_F(Connection, IsDestroyedHandlerFirstThenSocket) {
  make();
  script.take();
  script.showsHandlersEnds = true;
  connection.reset();
  EXPECT_EQ(script.take(),
            (Lines{"handlerGone", "detach 1", "release 1", "close a", "base ~FdEventHandler"}));
}

TEST_F(Connection, LogsTheEventReadsLogsTheTextAndCallsTheHandler) {
  make();
  setLevels(0xF);
  script.take();
  receive("{}");
  EXPECT_EQ(
      script.take(),
      (Lines{"stream",
             "output 2 Api/Json/Connection readFdEvent: Connection::readFdEvent(): fd = " +
                 std::to_string(fd),
             "streamGone", "read a 4095", "stream",
             "output 3 Api/Json/Connection readFdEvent: msg = '{}'", "streamGone", "handle"}));
}

TEST_F(Connection, LogsInvalidTextBeforeItRejectsItAndGoesOn) {
  make();
  setLevels(9);
  script.take();
  receive("{]");
  EXPECT_EQ(script.take(),
            (Lines{"read a 4095", "stream", "output 3 Api/Json/Connection readFdEvent: msg = '{]'",
                   "streamGone", "stream",
                   "output 0 Api/Json/Connection readFdEvent: "
                   "Connection::readFdEvent(): Invalid JSON message",
                   "streamGone"}));
  EXPECT_TRUE(connection->isAttached());
}

TEST_F(Connection, SaysNothingAboutAGoodMessageWhenOnlyErrorsAreWanted) {
  make();
  setLevels(1);
  script.take();
  receive("{}");
  EXPECT_EQ(script.take(), (Lines{"read a 4095", "handle"}));
}

TEST_F(Connection, TerminatesAfterAnEmptyReadWithoutLookingFurther) {
  make();
  setLevels(9);
  script.take();
  peers[0].hangUp();
  script.readable(fd);
  EXPECT_EQ(script.take(), (Lines{"read a 4095", "detach 1", "release 1", "close a"}));
}

TEST_F(Connection, TerminatesAfterAReadWithNothingToRead) {
  make();
  script.take();
  script.readable(fd);
  EXPECT_EQ(script.take(), (Lines{"read a 4095 fails", "detach 1", "release 1", "close a"}));
}

TEST_F(Connection, TerminatesAfterAFailedReadEvenIfSomeTextCameBefore) {
  make();
  script.take();
  peers[0].send(std::string(4093, ' ') + "{}");
  const Fail broken(Call::kRead, ECONNRESET, -1, 1);
  script.readable(fd);
  EXPECT_EQ(script.take(),
            (Lines{"read a 4095", "read a 4095 fails", "detach 1", "release 1", "close a"}));
}

TEST_F(Connection, AnswersASwitchBeforeItLogsTheChange) {
  make();
  setLevels(2);
  script.take();
  receive(R"({"command":"set","notification":true})");
  EXPECT_EQ(script.take(), (Lines{"read a 4095", R"(write a {"type":"reply","status":0})",
                                  "interest 1 off", "stream",
                                  "output 1 Api/Json/Connection handleNotifMsg: "
                                  "Connection::readFdEvent(): Client (fd = " +
                                      std::to_string(fd) + ") notification: 0 -> 1",
                                  "streamGone"}));
}

TEST_F(Connection, AnswersNoSwitchWhileSubscribed) {
  make();
  subscribe();
  setLevels(2);
  receive(R"({"command":"set","notification":false})");
  EXPECT_EQ(script.take(), (Lines{"read a 4095", "stream",
                                  "output 1 Api/Json/Connection handleNotifMsg: "
                                  "Connection::readFdEvent(): Client (fd = " +
                                      std::to_string(fd) + ") notification: 1 -> 0",
                                  "streamGone"}));
}

TEST_F(Connection, SurvivesAnAnswerThatFindsThePeerGone) {
  make();
  setLevels(2);
  script.take();
  peers[0].send(R"({"command":"set","notification":true})");
  const Fail gone(Call::kWrite, EPIPE);
  script.readable(fd);
  EXPECT_EQ(script.take(),
            (Lines{"read a 4095", R"(write a {"type":"reply","status":0} fails)", "stream",
                   "output 1 Api/Json/Async terminateConnection: "
                   "AsyncSender::terminateConnection(): fd = " +
                       std::to_string(fd),
                   "streamGone", "detach 1", "release 1", "close a", "stream",
                   "output 1 Api/Json/Connection handleNotifMsg: "
                   "Connection::readFdEvent(): Client (fd = -1) notification: 0 -> 1",
                   "streamGone"}));
}

TEST_F(Connection, AcknowledgesNothingWhileSubscribedOrDead) {
  make();
  subscribe();
  setLevels(0xF);
  connection->acknowledge(1);
  EXPECT_EQ(script.take(), Lines{});
  receive(R"({"command":"set","notification":false})");
  connection->terminateConnection();
  script.take();
  connection->acknowledge(2);
  EXPECT_EQ(script.take(), Lines{});
}

TEST_F(Connection, SwallowsAMalformedSwitchInSilence) {
  make();
  setLevels(3);
  script.take();
  receive(R"({"command":"set","notification":1})");
  EXPECT_EQ(script.take(), Lines{"read a 4095"});
}

TEST_F(Connection, WritesItsBacklogAtAWriteEvent) {
  make();
  {
    const Fail full(Call::kWrite, EAGAIN);
    connection->acknowledge(7);
  }
  script.take();
  script.writable(fd);
  EXPECT_EQ(script.take(), (Lines{R"(write a {"type":"reply","status":7})", "interest 1 off"}));
}

TEST_F(Connection, LeavesExceptionsToTheBaseLibrary) {
  make();
  script.take();
  Kelvo::Platform::FdEventHandler& handler = *connection;
  EXPECT_FALSE(handler.handleFdException(3));
  EXPECT_EQ(script.take(), Lines{"base handleFdException"});
}

TEST_F(Connection, LetsTheHandlersExceptionOutUntouched) {
  auto [ours, theirs] = Peer::pair();
  Tovik::Connection mute(ours, nullptr);
  script.take();
  theirs.send("{}");
  EXPECT_THROW(script.readable(ours), std::bad_function_call);
  EXPECT_EQ(script.take(), Lines{"read a 4095"});
  EXPECT_TRUE(mute.isAttached());
}

}  // namespace
