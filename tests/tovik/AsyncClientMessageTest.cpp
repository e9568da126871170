// What the asynchronous client sends and receives while it is connected, and what waits until then.

#include <functional>
#include <stdexcept>

#include "tests/tovik/AsyncClientSupport.h"

using Faults::Call;
using Faults::Fail;

namespace {

const std::string kMalformed =
    "0 Api/Json/Client readFdEvent: AsyncClient::readFdEvent(): Invalid JSON message";

std::string received(const std::string& text) {
  return "3 Api/Json/Client readFdEvent: AsyncClient::readFdEvent(): msg = '" + text + "'";
}

}  // namespace

// --- receiving ---

TEST_F(AsyncClient, HandsEveryWellFormedTextToItsHandlerWhateverItsShape) {
  connect();
  for (const std::string text :
       {R"({"type":"reply","status":0})", R"({"type":"reply","status":4294967295})",
        R"({"type":5,"status":0})", R"({"command":"set","notification":true})",
        R"({"command":7,"notification":true})", R"({"event":"news"})", "{}", "[1,2]", R"("reply")",
        "5", "null", "true", "\"\xff\xfe\""}) {
    log_.clear();
    rawSend(peer_.get(), text);
    nextTurn();
    ASSERT_FALSE(messages_.empty());
    EXPECT_EQ(messages_.back(), text);
    EXPECT_EQ(log_.lines(), Lines{received(text)});
    EXPECT_EQ(rawReceiveNow(peer_.get()), "<nothing>") << "nothing is acknowledged";
  }
}

TEST_F(AsyncClient, LogsMalformedTextTwiceAndDropsIt) {
  connect();
  for (const std::string text : {R"({"a":)", " ", "{} {}", "[1,]", "[1]//", "[NaN]", "[Infinity]",
                                 "'a'", "hello", "\xef\xbb\xbf[1]"}) {
    log_.clear();
    rawSend(peer_.get(), text);
    nextTurn();
    EXPECT_EQ(log_.lines(), (Lines{received(text), kMalformed}));
    EXPECT_EQ(rawReceiveNow(peer_.get()), "<nothing>");
  }
  EXPECT_TRUE(messages_.empty());
  rawSend(peer_.get(), "[1]");
  nextTurn();
  EXPECT_EQ(messages_, Lines{"[1]"}) << "the connection goes on";
}

TEST_F(AsyncClient, DeliversOneRecordATurnInOrder) {
  connect();
  rawSend(peer_.get(), "[1]");
  rawSend(peer_.get(), "[2]");
  nextTurn();
  EXPECT_EQ(messages_, Lines{"[1]"});
  nextTurn();
  EXPECT_EQ(messages_, (Lines{"[1]", "[2]"}));
}

TEST_F(AsyncClient, ReadsFromItsOwnDescriptorWhicheverItIsTold) {
  connect();
  rawSend(peer_.get(), "[1]");
  client_->readFdEvent(-1);
  EXPECT_EQ(messages_, Lines{"[1]"});
}

// --- handlers ---

TEST_F(AsyncClient, MaySendFromItsMessageHandler) {
  connect();
  onMessage_ = [this] { send(R"({"answer":1})"); };
  rawSend(peer_.get(), "[1]");
  nextTurn();
  EXPECT_EQ(rawReceive(peer_.get()), R"({"answer":1})");
}

TEST_F(AsyncClient, MayEndItsConnectionInItsMessageHandler) {
  connect(0);
  onMessage_ = [this] { client_->terminateConnection(); };
  rawSend(peer_.get(), "[1]");
  rawSend(peer_.get(), "[2]");
  nextTurn();
  EXPECT_FALSE(client_->isAttached());
  EXPECT_EQ(rawReceive(peer_.get()), "<error>") << "a record was left unread";
  nextTurn();
  EXPECT_EQ(connects_, 2);
  EXPECT_EQ(messages_, Lines{"[1]"});
}

TEST_F(AsyncClient, MayReplaceItsConnectionInItsMessageHandler) {
  connect();
  onMessage_ = [this] { client_->timeout(); };
  rawSend(peer_.get(), "[1]");
  nextTurn();
  EXPECT_EQ(connects_, 2);
  EXPECT_EQ(rawReceive(peer_.get()), "<end>");
}

TEST_F(AsyncClient, MayEndItsConnectionInItsConnectHandler) {
  make(kNever);
  onConnect_ = [this] { client_->terminateConnection(); };
  nextTurn();
  EXPECT_EQ(connects_, 1);
  EXPECT_FALSE(client_->isAttached());
}

TEST(AsyncClientWithoutHandlers, ThrowsOutOfTheLoopWhenItConnects) {
  RawServer server;
  server.stop();
  Tovik::AsyncClient client(server.name(), nullptr, nullptr, 0);
  EXPECT_NO_THROW(nextTurn()) << "nobody listens";
  server.startAgain();
  EXPECT_THROW(nextTurn(), std::bad_function_call);
  EXPECT_TRUE(client.isAttached()) << "the connection was there before the handler was called";
}

TEST(AsyncClientWithoutHandlers, ThrowsOutOfTheLoopForAMessage) {
  RawServer server;
  Tovik::AsyncClient client(
      server.name(), nullptr, [](Tovik::AsyncClient&) {}, 3600);
  nextTurn();
  const Fd peer = server.accept();
  rawSend(peer.get(), "{");
  EXPECT_NO_THROW(nextTurn());
  rawSend(peer.get(), "[1]");
  EXPECT_THROW(nextTurn(), std::bad_function_call);
  EXPECT_TRUE(client.isAttached());
  EXPECT_FALSE(Kelvo::Platform::EventLoop::current().dispatch()) << "the message has been read";
}

TEST_F(AsyncClient, LetsWhatItsMessageHandlerThrowsOutOfTheLoop) {
  connect();
  rawSend(peer_.get(), "[1]");
  rawSend(peer_.get(), "[2]");
  onMessage_ = [] { throw std::out_of_range("thrown by the handler"); };
  EXPECT_THROW(nextTurn(), std::out_of_range);
  onMessage_ = nullptr;
  nextTurn();
  EXPECT_EQ(messages_, (Lines{"[1]", "[2]"})) << "the connection goes on with the next record";
}

TEST_F(AsyncClient, LetsWhatItsConnectHandlerThrowsOutOfTheLoop) {
  make(0);
  onConnect_ = [] { throw std::out_of_range("thrown by the handler"); };
  EXPECT_THROW(nextTurn(), std::out_of_range);
  EXPECT_TRUE(client_->isAttached());
  peer_ = server_.accept();
  rawSend(peer_.get(), "[1]");
  nextTurn();
  EXPECT_EQ(messages_, Lines{"[1]"});
  turnForAWhile();
  EXPECT_EQ(connects_, 1);
}

// --- sending ---

TEST_F(AsyncClient, SendsWhatHasWaitedBeforeWhatItsConnectHandlerSends) {
  make(kNever);
  onConnect_ = [this] { send("[2]"); };
  send("[1]");
  nextTurn();
  peer_ = server_.accept();
  EXPECT_EQ(rawReceive(peer_.get()), "[1]");
  EXPECT_EQ(rawReceive(peer_.get()), "[2]");
}

TEST_F(AsyncClient, KeepsMessagesThroughFailedAttempts) {
  server_.stop();
  make(0);
  send("[1]");
  EXPECT_TRUE(turnUntil([this] { return client_->terminations() >= 3; }));
  send("[2]");
  EXPECT_EQ(client_->queued(), 2U);
  server_.startAgain();
  EXPECT_TRUE(turnUntil([this] { return connects_ == 1; }));
  peer_ = server_.accept();
  send("[3]");
  for (const char* text : {"[1]", "[2]", "[3]"}) {
    EXPECT_EQ(rawReceive(peer_.get()), text);
  }
}

TEST_F(AsyncClient, SendsOnTheNextConnectionWhatWasQueuedSinceTheLoss) {
  connect(0);
  {
    const Fail full(Call::kWrite, EAGAIN);
    send("[1]");
  }
  server_.stop();
  peer_.reset();
  EXPECT_TRUE(turnUntil([this] { return !client_->isAttached(); }));
  send("[2]");
  server_.startAgain();
  EXPECT_TRUE(turnUntil([this] { return connects_ == 2; }));
  peer_ = server_.accept();
  send("[3]");
  EXPECT_EQ(rawReceive(peer_.get()), "[2]") << "the backlog of the lost connection is dropped";
  EXPECT_EQ(rawReceive(peer_.get()), "[3]");
}
