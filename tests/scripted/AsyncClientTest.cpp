#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "Api/Json/Client.h"
#include "Kelvo/Exception.h"
#include "tests/scripted/Script.h"

using Faults::Call;
using Faults::Fail;

namespace {

class AsyncClient : public ::testing::Test {
 protected:
  /// Makes the client, whose timer has the number 1.
  void make(int interval = 7) {
    client = std::make_unique<Tovik::AsyncClient>(
        name.c_str(),
        [this, farewell = Farewell("messageHandlerGone")](
            Tovik::AsyncClient&, const Tovik::Message&) { script.note("message"); },
        [this, farewell = Farewell("connectHandlerGone")](Tovik::AsyncClient& connected) {
          script.note("connected");
          EXPECT_TRUE(connected.isAttached());
        },
        interval);
  }
  /// Makes it and connects it. Its socket appears as "a", its control has the number 1.
  void connect() {
    make();
    script.expire(1);
    peer = std::make_unique<Peer>(listener.accept());
    fd = script.fd('a');
    script.take();
  }
  void send(const char* text) {
    Tovik::Message msg;
    msg.Parse(text);
    client->asyncSendMsg(msg);
  }

  Script script;
  const std::string name = freshName();
  Peer listener = Peer::listeningAs(name);
  std::unique_ptr<Peer> peer;
  int fd = -1;
  std::unique_ptr<Tovik::AsyncClient> client;
};

TEST_F(AsyncClient, ArmsATimerOfItsOwnForTheNextTurn) {
  make();
  EXPECT_EQ(script.take(), (Lines{"getTimer 1", "arm 1 0"}));
  EXPECT_EQ(script.clock(1).handler, client.get());
  EXPECT_EQ(script.clock(1).unlessAttached,
            static_cast<const Kelvo::Platform::FdEventHandler*>(client.get()));
}

TEST_F(AsyncClient, ConnectsThenArmsThenAttachesThenTellsTheApplication) {
  make();
  script.take();
  script.expire(1);
  EXPECT_EQ(script.take(), (Lines{"socket a", "connect a 110", "getfl a", "setfl a +nonblock",
                                  "arm 1 7", "getFdControl 1", "attach 1 a", "connected"}));
  EXPECT_EQ(script.watch(1).handler, client.get());
}

TEST_F(AsyncClient, ArmsTheTimerAfterEachFailedAttempt) {
  listener.hangUp();
  make();
  script.take();
  const Lines attempt{"socket a", "connect a 110 fails", "close a", "arm 1 7"};
  setLevels(3);
  script.expire(1);
  EXPECT_EQ(script.take(), attempt);
  script.expire(1);
  EXPECT_EQ(script.take().back(), "arm 1 7");
}

TEST_F(AsyncClient, ArmsTheTimerWhenThereIsNoSocket) {
  make();
  script.take();
  const Fail none(Call::kSocket, EMFILE);
  script.expire(1);
  EXPECT_EQ(script.take(), (Lines{"socket - fails", "arm 1 7"}));
}

TEST_F(AsyncClient, ArmsTheTimerOnceALostConnectionIsTornDown) {
  connect();
  peer->hangUp();
  script.readable(fd);
  EXPECT_EQ(script.take(), (Lines{"read a 4095", "detach 1", "release 1", "close a", "arm 1 7"}));
}

TEST_F(AsyncClient, ArmsTheTimerWhenAWriteFindsTheServerGone) {
  connect();
  peer->hangUp();
  send("{}");
  EXPECT_EQ(script.take(),
            (Lines{"write a {} fails", "detach 1", "release 1", "close a", "arm 1 7"}));
}

TEST_F(AsyncClient, ArmsTheTimerAtATerminationWithoutAConnection) {
  make();
  setLevels(0xF);
  script.take();
  client->terminateConnection();
  EXPECT_EQ(script.take(), Lines{"arm 1 7"});
}

TEST_F(AsyncClient, EndsAConnectionAfterAReadEventWithNothingToRead) {
  connect();
  script.readable(fd);
  EXPECT_EQ(script.take(),
            (Lines{"read a 4095 fails", "detach 1", "release 1", "close a", "arm 1 7"}));
}

TEST_F(AsyncClient, ReplacesAConnectionThatIsStillOpen) {
  connect();
  script.expire(1);
  EXPECT_EQ(script.take(), (Lines{"socket b", "connect b 110", "getfl b", "setfl b +nonblock",
                                  "detach 1", "release 1", "close a", "arm 1 7", "getFdControl 2",
                                  "attach 2 b", "connected"}));
}

TEST_F(AsyncClient, EndsAConnectionThatIsStillOpenWhenAnAttemptFails) {
  connect();
  const Fail refused(Call::kConnect, ECONNREFUSED);
  script.expire(1);
  EXPECT_EQ(script.take(), (Lines{"socket b", "connect b 110 fails", "close b", "detach 1",
                                  "release 1", "close a", "arm 1 7"}));
}

TEST_F(AsyncClient, ClosesASocketThatTheLoopRefusesWithTheTimerArmed) {
  make();
  script.take();
  script.refusesToAttach = true;
  EXPECT_THROW(script.expire(1), Kelvo::Exception);
  EXPECT_EQ(script.take(),
            (Lines{"socket a", "connect a 110", "getfl a", "setfl a +nonblock", "arm 1 7",
                   "getFdControl 1", "attach 1 a refused", "release 1", "close a"}));
}

TEST_F(AsyncClient, ArmsWithTheExactInterval) {
  make(16777217);
  client->terminateConnection();
  EXPECT_EQ(script.clock(1).seconds, 16777217.0);
}

TEST_F(AsyncClient, IsDestroyedTimerFirstThenHandlersThenSocketAndArmsNothing) {
  connect();
  script.showsHandlersEnds = true;
  client.reset();
  EXPECT_EQ(script.take(),
            (Lines{"releaseTimer 1", "connectHandlerGone", "messageHandlerGone", "detach 1",
                   "release 1", "close a", "base ~FdEventHandler", "base ~TimeoutHandler"}));
}

TEST_F(AsyncClient, SendsWhatWaitsAheadOfTheNextMessageAndNotBefore) {
  make();
  send("1");
  script.expire(1);
  script.take();
  send("2");
  EXPECT_EQ(script.take(), (Lines{"write a 1", "write a 2", "interest 1 off"}));
}

TEST_F(AsyncClient, LetsTheConnectHandlerSendAtOnce) {
  client = std::make_unique<Tovik::AsyncClient>(
      name.c_str(), nullptr,
      [](Tovik::AsyncClient& connected) {
        Tovik::Message msg;
        msg.Parse("{}");
        connected.asyncSendMsg(msg);
      },
      7);
  script.expire(1);
  const Lines lines = script.take();
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(Lines(lines.end() - 3, lines.end()),
            (Lines{"attach 1 a", "write a {}", "interest 1 off"}));
}

TEST_F(AsyncClient, LogsTheTickBeforeItDoesAnything) {
  make();
  setLevels(8);
  script.take();
  script.expire(1);
  const Lines lines = script.take();
  ASSERT_GE(lines.size(), 4U);
  EXPECT_EQ(Lines(lines.begin(), lines.begin() + 4),
            (Lines{"stream", "output 3 Api/Json/Client timeout: AsyncClient::timeout()",
                   "streamGone", "socket a"}));
}

TEST_F(AsyncClient, LogsATextBeforeItHandsItOn) {
  connect();
  setLevels(0xF);
  peer->send("[1]");
  script.readable(fd);
  EXPECT_EQ(script.take(), (Lines{"read a 4095", "stream",
                                  "output 3 Api/Json/Client readFdEvent: "
                                  "AsyncClient::readFdEvent(): msg = '[1]'",
                                  "streamGone", "message"}));
}

TEST_F(AsyncClient, LogsInvalidTextBeforeItRejectsItAndStaysConnected) {
  connect();
  setLevels(0xF);
  peer->send("{]");
  script.readable(fd);
  EXPECT_EQ(script.take(),
            (Lines{"read a 4095", "stream",
                   "output 3 Api/Json/Client readFdEvent: AsyncClient::readFdEvent(): msg = '{]'",
                   "streamGone", "stream",
                   "output 0 Api/Json/Client readFdEvent: "
                   "AsyncClient::readFdEvent(): Invalid JSON message",
                   "streamGone"}));
  EXPECT_TRUE(client->isAttached());
}

TEST_F(AsyncClient, LogsUnreadableFlagsBeforeItClosesTheSocket) {
  make();
  setLevels(1);
  script.take();
  const Fail unreadable(Call::kGetFl, EPERM);
  script.expire(1);
  EXPECT_EQ(script.take(),
            (Lines{"socket a", "connect a 110", "getfl a fails", "stream", "strerror",
                   "output 0 Api/Json/Client createSocket: "
                   "createSocket: Failed to GETFL -> Operation not permitted",
                   "streamGone", "close a", "arm 1 7"}));
}

TEST_F(AsyncClient, LogsUnsettableFlagsAfterItHasClosedTheSocketWithTheErrorOfThatMoment) {
  make();
  setLevels(1);
  script.take();
  const Fail stubborn(Call::kSetFl, EPERM);
  const Fail close(Call::kClose, EIO);
  script.expire(1);
  EXPECT_EQ(script.take(), (Lines{"socket a", "connect a 110", "getfl a", "setfl a +nonblock fails",
                                  "close a fails", "stream", "strerror",
                                  "output 0 Api/Json/Client createSocket: "
                                  "createSocket: Failed to SETFL -> Input/output error",
                                  "streamGone", "arm 1 7"}));
}

TEST_F(AsyncClient, LeavesExceptionsToTheBaseLibrary) {
  make();
  script.take();
  Kelvo::Platform::FdEventHandler& descriptors = *client;
  Kelvo::Platform::TimeoutHandler& timeouts = *client;
  EXPECT_FALSE(descriptors.handleFdException(3));
  EXPECT_FALSE(timeouts.handleTimeoutException());
  EXPECT_EQ(script.take(), (Lines{"base handleFdException", "base handleTimeoutException"}));
}

TEST_F(AsyncClient, LetsAMissingConnectHandlerShowOnceItIsAttached) {
  client = std::make_unique<Tovik::AsyncClient>(name.c_str(), nullptr, nullptr, 7);
  EXPECT_THROW(script.expire(1), std::bad_function_call);
  EXPECT_TRUE(client->isAttached());
  EXPECT_EQ(script.take().back(), "attach 1 a");
}

// --- the blocking client needs nothing of the base library but its strings and its channel ---

class Client : public AsyncClient {};

TEST_F(Client, ConnectsWithTwoCallsAndClosesOnce) {
  {
    Tovik::Client blocking(name.c_str());
    EXPECT_EQ(script.take(), (Lines{"socket a", "connect a 110"}));
    blocking.closeSocket();
    EXPECT_EQ(script.take(), Lines{"close a"});
  }
  EXPECT_EQ(script.take(), Lines{});
}

TEST_F(Client, KeepsTheReasonWhenItCannotConnect) {
  setLevels(0xF);
  const Fail refused(Call::kConnect, ECONNREFUSED);
  const Fail close(Call::kClose, EIO);
  try {
    const Tovik::Client blocking(name.c_str());
    ADD_FAILURE() << "connected";
  } catch (const Tovik::SocketException& exception) {
    EXPECT_STREQ(exception.what(), "Connection refused");
  }
  EXPECT_EQ(script.take(), (Lines{"socket a", "connect a 110 fails", "close a fails", "strerror"}));
}

TEST_F(Client, LogsAFailedWrite) {
  const Tovik::Client blocking(name.c_str());
  setLevels(1);
  script.take();
  Tovik::Message msg;
  msg.Parse("{}");
  const Fail gone(Call::kWrite, EPIPE);
  EXPECT_EQ(blocking.sendMsg(msg, true), -1);
  EXPECT_EQ(script.take(), (Lines{"write a {} fails", "stream", "strerror",
                                  "output 0 Api/Json/Client sendMsg: "
                                  "Client::sendMsg(): Failed to write() Broken pipe",
                                  "streamGone"}));
}

TEST_F(Client, WaitsWithOneReadForOneWrite) {
  const Tovik::Client blocking(name.c_str());
  const Peer server = listener.accept();
  server.send(R"({"type":"reply","status":3})");
  script.take();
  Tovik::Message msg;
  msg.Parse("{}");
  EXPECT_EQ(blocking.sendMsg(msg, true), 3);
  EXPECT_EQ(script.take(), (Lines{"write a {}", "read a 4095"}));
}

TEST_F(Client, EndsTheProcessOverANameThatDoesNotFit) {
  EXPECT_DEATH(Tovik::Client(std::string(107, 'n')), "buffer overflow detected");
}

}  // namespace
