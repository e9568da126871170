// The server's end of one client, on a socket pair: what reaches the handler, what is answered,
// what ends the connection and what ends the process.

#include "Api/Json/Connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <utility>

#include "Kelvo/Exception.h"
#include "tests/tovik/Peers.h"

using Faults::Call;
using Faults::Fail;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class Connection : public ::testing::Test {
 protected:
  Connection() {
    auto [ours, theirs] = nonBlockingPair();
    fd = ours.get();
    client = std::move(theirs);
    connection = std::make_unique<Tovik::Connection>(
        ours.release(), [this](Tovik::Connection& from, const Tovik::Message& msg) {
          EXPECT_EQ(&from, connection.get());
          handled.push_back(compact(msg));
          if (onMessage) {
            onMessage(from, msg);
          }
        });
  }

  /// The client sends one record, and the loop turns once.
  void receive(std::string_view record) {
    rawSend(client.get(), record);
    EXPECT_TRUE(turn());
  }

  /// What the client has been sent since it last looked.
  std::vector<std::string> sent() { return receivedBy(client.get()); }

  std::string prefix(int level, const std::string& function) const {
    return std::to_string(level) + " Api/Json/Connection " + function + ": ";
  }
  std::string eventLine(int descriptor) const {
    return prefix(2, "readFdEvent") +
           "Connection::readFdEvent(): fd = " + std::to_string(descriptor);
  }
  std::string textLine(const std::string& text) const {
    return prefix(3, "readFdEvent") + "msg = '" + text + "'";
  }
  std::string invalidLine() const {
    return prefix(0, "readFdEvent") + "Connection::readFdEvent(): Invalid JSON message";
  }
  std::string switchLine(int descriptor, const std::string& change) const {
    return prefix(1, "handleNotifMsg") +
           "Connection::readFdEvent(): Client (fd = " + std::to_string(descriptor) +
           ") notification: " + change;
  }

  int fd = -1;
  Fd client;
  std::vector<std::string> handled;
  std::function<void(Tovik::Connection&, const Tovik::Message&)> onMessage;
  std::unique_ptr<Tovik::Connection> connection;
};

constexpr auto kCommand = R"({"command":"go"})";

// --- messages for the handler ---

TEST_F(Connection, HandsAMessageToItsHandlerAndAnswersNothingByItself) {
  receive(R"({ "command" : "go", "list" : [1, 2.5, null, "x"] })");
  EXPECT_THAT(handled, ElementsAre(R"({"command":"go","list":[1,2.5,null,"x"]})"));
  EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(Connection, HandsEverythingButASwitchToItsHandlerUnchanged) {
  const std::vector<std::string> messages = {
      R"({})",
      R"({"command":"set"})",
      R"({"notification":true})",
      R"({"command":"get","notification":true})",
      R"({"command":"SET","notification":true})",
      R"({"command":"sets","notification":true})",
      R"({"command":"se","notification":false})",
      R"({"command":"","notification":true})",
      R"({"command":"get","notification":5})",
      R"({"command":7})",
      R"({"Command":"set","notification":true})",
      R"({"type":"reply","status":0})",
  };
  for (const auto& message : messages) {
    receive(message);
  }
  EXPECT_EQ(handled, messages);
  EXPECT_THAT(sent(), IsEmpty());
  connection->acknowledge(1);
  EXPECT_THAT(sent(), ElementsAre(R"({"type":"reply","status":1})"));  // not subscribed
}

TEST_F(Connection, TakesOneRecordForOneMessageInEachEvent) {
  rawSend(client.get(), R"({"n":1})");
  rawSend(client.get(), R"({"n":2})");
  EXPECT_TRUE(turn());
  EXPECT_THAT(handled, ElementsAre(R"({"n":1})"));
  EXPECT_TRUE(turn());
  EXPECT_THAT(handled, ElementsAre(R"({"n":1})", R"({"n":2})"));
}

TEST_F(Connection, UsesTheEventsDescriptorForTheTraceOnly) {
  rawSend(client.get(), R"({"n":1})");
  CapturedLog log;
  connection->readFdEvent(54321);
  EXPECT_TRUE(log.has(eventLine(54321)));
  EXPECT_THAT(handled, ElementsAre(R"({"n":1})"));
}

TEST_F(Connection, LosesAMessageOf4095BytesTogetherWithTheNext) {
  CapturedLog log;
  rawSend(client.get(), messageOfSize(4095));
  rawSend(client.get(), kCommand);
  rawSend(client.get(), R"({"n":3})");
  turnUntilIdle();
  EXPECT_THAT(log.lines(0), ElementsAre(invalidLine()));
  EXPECT_TRUE(log.has(textLine(messageOfSize(4095) + kCommand)));
  EXPECT_THAT(handled, ElementsAre(R"({"n":3})"));
}

// --- text that is not JSON ---

TEST_F(Connection, DropsTextThatIsNotJsonAndGoesOn) {
  for (const std::string text :
       {"{", "{} {}", "{\"a\":1,}", "// no\n{}", "{\"a\":NaN}", "no", "'a'", " ", "{'a':1}",
        "{\"command\":\"set\",\"notification\":true"}) {
    CapturedLog log;
    receive(text);
    EXPECT_THAT(log.lines(), ElementsAre(eventLine(fd), textLine(text), invalidLine()));
  }
  EXPECT_TRUE(connection->isAttached());
  EXPECT_THAT(sent(), IsEmpty());
  EXPECT_THAT(handled, IsEmpty());
  receive(std::string(" \t\r\n") + kCommand + "\n ");
  EXPECT_THAT(handled, ElementsAre(kCommand));
}

// --- the notification switch ---

TEST_F(Connection, AnswersASwitchOnlyIfTheClientWasNotSubscribedBefore) {
  const std::vector<std::pair<const char*, bool>> steps = {
      {kUnsubscribe, true}, {kSubscribe, true},    {kSubscribe, false}, {kUnsubscribe, false},
      {kUnsubscribe, true}, {kUnsubscribe, true},  {kSubscribe, true},  {kSubscribe, false},
      {kSubscribe, false},  {kUnsubscribe, false}, {kSubscribe, true},
  };
  for (const auto& [message, answered] : steps) {
    receive(message);
    EXPECT_EQ(sent(), answered ? std::vector<std::string>{kAccepted} : std::vector<std::string>{});
  }
  EXPECT_THAT(handled, IsEmpty());
}

TEST_F(Connection, LogsEverySwitch) {
  CapturedLog log;
  for (const auto* message : {kSubscribe, kSubscribe, kUnsubscribe, kUnsubscribe}) {
    receive(message);
  }
  EXPECT_THAT(log.lines(1), ElementsAre(switchLine(fd, "0 -> 1"), switchLine(fd, "1 -> 1"),
                                        switchLine(fd, "1 -> 0"), switchLine(fd, "0 -> 0")));
}

TEST_F(Connection, IgnoresASwitchsOtherMembersAndTheirOrder) {
  receive(R"({"id":[7],"notification":true,"x":null,"command":"set","type":"reply"})");
  EXPECT_THAT(sent(), ElementsAre(kAccepted));
  receive(kCommand);
  connection->acknowledge(4);
  EXPECT_THAT(sent(), IsEmpty());  // subscribed
}

TEST_F(Connection, ComparesTheCommandUpToItsNulCharacter) {
  receive(R"({"command":"set\u0000more","notification":true})");
  EXPECT_THAT(sent(), ElementsAre(kAccepted));
  EXPECT_THAT(handled, IsEmpty());
}

TEST_F(Connection, SwallowsASwitchWhoseValueIsNoBoolean) {
  for (const auto* before : {kUnsubscribe, kSubscribe}) {
    receive(before);
    sent();
    for (const std::string value : {"1", "0", "\"true\"", "null", "{}", "[]", "[true]", "1.5"}) {
      CapturedLog log;
      const std::string message = R"({"command":"set","notification":)" + value + "}";
      receive(message);
      EXPECT_THAT(log.lines(), ElementsAre(eventLine(fd), textLine(message)));
    }
    EXPECT_THAT(sent(), IsEmpty());
  }
  EXPECT_THAT(handled, IsEmpty());
  receive(kUnsubscribe);
  EXPECT_THAT(sent(), IsEmpty());  // still subscribed
}

// --- replies ---

TEST_F(Connection, AcknowledgesWithTheStatusAsAnUnsignedNumber) {
  for (const unsigned status : {0U, 1U, 3U, 2147483647U, 2147483648U, 4294967295U}) {
    connection->acknowledge(status);
    EXPECT_THAT(sent(), ElementsAre(R"({"type":"reply","status":)" + std::to_string(status) + "}"));
  }
}

TEST_F(Connection, AcknowledgesNothingWhileTheClientIsSubscribed) {
  onMessage = [](Tovik::Connection& from, const Tovik::Message&) { from.acknowledge(1); };
  receive(kSubscribe);
  sent();
  CapturedLog log;
  receive(kCommand);
  EXPECT_THAT(sent(), IsEmpty());
  EXPECT_THAT(log.lines(), ElementsAre(eventLine(fd), textLine(kCommand)));  // nothing is queued
  receive(kUnsubscribe);
  receive(kCommand);
  EXPECT_THAT(sent(), ElementsAre(R"({"type":"reply","status":1})"));
}

// --- other messages to the client ---

TEST_F(Connection, SendsAnyMessageWhetherSubscribedOrNot) {
  EXPECT_TRUE(connection->sendMsg(parsed(R"({ "n": 1 })")));
  EXPECT_TRUE(connection->sendMsg(parsed("[1]")));
  EXPECT_THAT(sent(), ElementsAre(R"({"n":1})", "[1]"));
  receive(kSubscribe);
  sent();
  EXPECT_TRUE(connection->sendMsg(parsed(R"({"n":2})")));
  CapturedLog log;
  EXPECT_FALSE(connection->sendMsg(parsed("{")));
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_THAT(sent(), ElementsAre(R"({"n":2})"));
}

TEST_F(Connection, TakesAMessageEvenWhenDeadAndASwitchButNoReply) {
  connection->terminateConnection();
  CapturedLog log;
  connection->acknowledge(1);
  EXPECT_THAT(log.lines(), IsEmpty()) << "not even queued";
  EXPECT_TRUE(connection->sendMsg(parsed(R"({"n":1})")));
  EXPECT_TRUE(connection->handleNotifMsg(parsed(kSubscribe)));
  EXPECT_THAT(log.lines(), ElementsAre("3 Api/Json/Async asyncSendMsg: "
                                       "AsyncSender::asyncSendMSg() -> {\"n\":1}",
                                       switchLine(-1, "0 -> 1")));
}

// --- the end ---

TEST_F(Connection, HandlesTheLastMessageBeforeItEnds) {
  rawSend(client.get(), kCommand);
  client.reset();
  EXPECT_TRUE(turn());
  EXPECT_TRUE(connection->isAttached());
  EXPECT_TRUE(turn());
  EXPECT_FALSE(connection->isAttached());
  EXPECT_THAT(handled, ElementsAre(kCommand));
}

TEST_F(Connection, EndsAtAFailedReadAfterPartOfAText) {
  rawSend(client.get(), messageOfSize(4095));
  const Fail fail(Call::kRead, EIO, 1, 1);
  EXPECT_TRUE(turn());
  EXPECT_FALSE(connection->isAttached());
  EXPECT_THAT(handled, IsEmpty());
}

TEST_F(Connection, EndsAtAnEventThatFindsNothing) {
  connection->readFdEvent(fd);
  EXPECT_FALSE(connection->isAttached());
  EXPECT_EQ(rawReceive(client.get()), "<end>");
}

TEST_F(Connection, EndsAtARecordThatIsEmptyOrStartsWithANulByte) {
  for (const auto record : {std::string_view(), std::string_view("\0{}", 3)}) {
    auto [ours, theirs] = nonBlockingPair();
    connection->setFd(ours.release());
    CapturedLog log;
    rawSend(theirs.get(), record);
    EXPECT_TRUE(turn());
    EXPECT_FALSE(connection->isAttached());
    EXPECT_THAT(log.lines(3), IsEmpty());
    EXPECT_THAT(log.lines(0), IsEmpty());
  }
}

TEST_F(Connection, MayBeEndedByItsHandler) {
  onMessage = [](Tovik::Connection& from, const Tovik::Message&) {
    from.acknowledge(5);
    from.terminateConnection();
    from.acknowledge(6);
  };
  receive(kCommand);
  EXPECT_FALSE(connection->isAttached());
  EXPECT_THAT(sent(), ElementsAre(R"({"type":"reply","status":5})", "<end>"));
  EXPECT_FALSE(turn());
}

TEST_F(Connection, LeavesADescriptorThatCannotBeWatchedToItsCaller) {
  const auto [ours, theirs] = rawPair();
  const auto token = std::make_shared<int>();
  {
    const Fail fail(Call::kEpollCtl, ENOSPC, 1);
    EXPECT_THROW(Tovik::Connection(ours.get(), [token](auto&, auto&) {}), Kelvo::Exception);
  }
  EXPECT_TRUE(isOpen(ours.get()));
  EXPECT_EQ(token.use_count(), 1);
}

// --- exceptions ---

TEST_F(Connection, LetsItsHandlersExceptionThroughTheLoopAndGoesOn) {
  onMessage = [](Tovik::Connection&, const Tovik::Message&) { throw std::range_error("mine"); };
  rawSend(client.get(), kCommand);
  try {
    turn();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const std::range_error& error) {
    EXPECT_STREQ(error.what(), "mine");
  }
  EXPECT_TRUE(connection->isAttached());
  onMessage = nullptr;
  receive(R"({"n":2})");
  EXPECT_THAT(handled, ElementsAre(kCommand, R"({"n":2})"));
}

TEST_F(Connection, ThrowsForAnEmptyHandlerButTakesSwitches) {
  auto [ours, theirs] = nonBlockingPair();
  Tovik::Connection silent(ours.release(), nullptr);
  rawSend(theirs.get(), kSubscribe);
  EXPECT_TRUE(turn());
  EXPECT_EQ(rawReceiveNow(theirs.get()), kAccepted);
  rawSend(theirs.get(), kCommand);
  EXPECT_THROW(turn(), std::bad_function_call);
  EXPECT_TRUE(silent.isAttached());
}

// --- JSON of the wrong shape ---

using ConnectionDeathTest = Connection;

TEST_F(ConnectionDeathTest, EndsTheProcessForARootThatIsNoObject) {
  for (const auto* text : {"[1,2]", "\"reply\"", "5", "null", "true", "[]", "0.5"}) {
    EXPECT_EXIT(receive(text), ::testing::KilledBySignal(SIGABRT), "Assertion.*IsObject\\(\\)");
  }
}

TEST_F(ConnectionDeathTest, EndsTheProcessForASwitchWhoseCommandIsNoString) {
  for (const std::string command : {"7", "null", "true", "{}", "[\"set\"]"}) {
    EXPECT_EXIT(receive(R"({"command":)" + command + R"(,"notification":true})"),
                ::testing::KilledBySignal(SIGABRT), "Assertion.*IsString\\(\\)");
  }
  EXPECT_EXIT(receive(R"({"command":7,"notification":1})"), ::testing::KilledBySignal(SIGABRT),
              "Assertion.*IsString\\(\\)")
      << "even if the notification is no boolean";
}

}  // namespace
