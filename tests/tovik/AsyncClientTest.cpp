// How the asynchronous client connects, loses its connection and connects again.

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "Api/Json/Server.h"
#include "tests/tovik/AsyncClientSupport.h"
#include "tests/tovik/Peers.h"

using Faults::Call;
using Faults::Fail;
using Faults::Trace;
using Clock = std::chrono::steady_clock;

// --- the attempt ---

TEST_F(AsyncClient, DoesNotConnectWhileItIsMadeButInTheNextTurn) {
  const Trace trace;
  make(kNever);
  EXPECT_EQ(trace.count(Call::kSocket), 0);
  EXPECT_FALSE(client_->isAttached());
  EXPECT_EQ(log_.lines(), Lines());
  EXPECT_TRUE(turn()) << "without waiting";
  EXPECT_EQ(connects_, 1);
  EXPECT_TRUE(client_->isAttached());
  EXPECT_TRUE(server_.hasClient());
}

TEST_F(AsyncClient, KeepsTheOtherFlagsOfItsSocket) {
  make(kNever);
  const Trace trace;
  client_->timeout();
  const auto before = trace.of(Call::kGetFl).at(0).result;
  EXPECT_EQ(before, O_RDWR);
  EXPECT_EQ(trace.of(Call::kSetFl).at(0).size, static_cast<std::size_t>(before | O_NONBLOCK));
  EXPECT_EQ(::fcntl(client_->descriptor(), F_GETFL), O_RDWR | O_NONBLOCK);
  EXPECT_EQ(::fcntl(client_->descriptor(), F_GETFD), 0) << "not close-on-exec";
}

TEST_F(AsyncClient, WaitsInItsAttemptForARoomInTheBacklog) {
  const std::string name = uniqueName();
  const Fd listener = rawListen(name, 110, 0);
  const Fd first = rawConnect(name);  // fills the backlog
  Fd accepted;
  bool connected = false;
  Tovik::AsyncClient client(
      name, nullptr, [&](Tovik::AsyncClient&) { connected = true; }, kNever);
  {
    const OnceThisThreadSleeps accepting(
        [&] { accepted = Fd(::accept(listener.get(), nullptr, nullptr)); });
    client.timeout();
  }
  EXPECT_TRUE(connected);
}

TEST_F(AsyncClient, WorksOnDescriptorZero) {
  const FreeDescriptorZero zero;
  connect();
  EXPECT_EQ(client_->descriptor(), 0);
  rawSend(peer_.get(), "[1]");
  nextTurn();
  EXPECT_EQ(messages_, Lines{"[1]"});
  client_.reset();
  EXPECT_EQ(rawReceive(peer_.get()), "<end>");
}

// --- the attempt that fails ---

TEST_F(AsyncClient, TerminatesOnceForEachFailedAttempt) {
  make(kNever);
  const auto before = openDescriptors();
  for (const Call call : {Call::kSocket, Call::kConnect, Call::kGetFl, Call::kSetFl}) {
    log_.clear();
    const int terminations = client_->terminations();
    const Fail fail(call, EACCES, 1);
    client_->timeout();
    EXPECT_EQ(client_->terminations(), terminations + 1);
    EXPECT_FALSE(client_->isAttached());
    if (call == Call::kSocket || call == Call::kConnect) {
      EXPECT_EQ(log_.lines(), Lines{kAttempt}) << "silent about its socket and its connect";
    }
  }
  EXPECT_EQ(connects_, 0);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(AsyncClient, KeepsNoSocketThatTheLoopRefuses) {
  make(0);
  const auto before = openDescriptors();
  {
    const Fail fail(Call::kEpollCtl, ENOSPC, 1);
    EXPECT_THROW(nextTurn(), Kelvo::Exception);
  }
  EXPECT_FALSE(client_->isAttached());
  EXPECT_EQ(connects_, 0);
  EXPECT_EQ(openDescriptors(), before);
  nextTurn();
  EXPECT_EQ(connects_, 1) << "the next attempt comes as after any other failure";
}

// --- trying again ---

TEST_F(AsyncClient, TriesAgainAfterEveryFailedAttempt) {
  server_.stop();
  make(0);
  const Trace trace;
  const auto before = openDescriptors();
  EXPECT_TRUE(turnUntil([&] { return trace.count(Call::kSocket) >= 100; }));
  EXPECT_EQ(connects_, 0);
  EXPECT_EQ(openDescriptors(), before);
  server_.startAgain();
  EXPECT_TRUE(turnUntil([this] { return connects_ == 1; }));
}

TEST_F(AsyncClient, MakesOneAttemptATurn) {
  server_.stop();
  make(0);
  for (int i = 0; i < 5; ++i) {
    const Trace trace;
    nextTurn();
    EXPECT_EQ(trace.count(Call::kSocket), 1);
  }
}

TEST_F(AsyncClient, WaitsForOneIntervalAfterAFailedAttempt) {
  server_.stop();
  make(1);
  const auto start = Clock::now();
  nextTurn();
  EXPECT_EQ(client_->terminations(), 1);
  server_.startAgain();
  EXPECT_TRUE(turnUntil([this] { return connects_ == 1; }));
  EXPECT_GE(Clock::now() - start, std::chrono::seconds(1));
}

TEST_F(AsyncClient, WaitsForOneIntervalAfterALoss) {
  connect(1);
  const auto start = Clock::now();
  peer_.reset();
  nextTurn();
  EXPECT_FALSE(client_->isAttached());
  EXPECT_TRUE(turnUntil([this] { return connects_ == 2; }));
  EXPECT_GE(Clock::now() - start, std::chrono::seconds(1));
}

TEST_F(AsyncClient, ConnectsAgainAfterEveryLoss) {
  connect(0);
  for (int connection = 2; connection <= 5; ++connection) {
    peer_.reset();
    EXPECT_TRUE(turnUntil([&] { return connects_ == connection; }));
    peer_ = server_.accept();
    rawSend(peer_.get(), "[1]");
    EXPECT_TRUE(turnUntil([&] { return messages_.size() + 1 == std::size_t(connection); }));
  }
}

TEST_F(AsyncClient, KeepsAConnectionThatWorks) {
  connect(0);
  const int fd = client_->descriptor();
  const Trace trace;
  turnForAWhile();
  for (int i = 0; i < 100; ++i) {
    rawSend(peer_.get(), "[1]");
    nextTurn();
  }
  turnForAWhile();
  EXPECT_EQ(messages_.size(), 100U);
  EXPECT_EQ(client_->descriptor(), fd);
  EXPECT_EQ(trace.count(Call::kSocket), 0);
  EXPECT_EQ(connects_, 1);
  EXPECT_FALSE(server_.hasClient());
}

TEST_F(AsyncClient, PutsItsFirstAttemptOffWhenItIsTerminatedBefore) {
  make(kNever);
  client_->Tovik::AsyncClient::terminateConnection();
  turnForAWhile();
  EXPECT_EQ(connects_, 0);
  EXPECT_EQ(log_.lines(), Lines());
}

TEST_F(AsyncClient, ConnectsAgainWhenItIsTerminatedByHand) {
  connect(0);
  client_->terminateConnection();
  EXPECT_FALSE(client_->isAttached());
  EXPECT_EQ(rawReceive(peer_.get()), "<end>");
  nextTurn();
  EXPECT_EQ(connects_, 2);
}

TEST_F(AsyncClient, TerminatesBeforeItAttachesANewSocket) {
  make(kNever);
  onConnect_ = [this] { EXPECT_EQ(client_->terminations(), 1); };
  nextTurn();
  EXPECT_EQ(connects_, 1);
  EXPECT_EQ(client_->terminations(), 1);
}

TEST_F(AsyncClient, TakesAnotherSocketByHand) {
  connect(0);
  const int old = client_->descriptor();
  auto [mine, theirs] = nonBlockingPair();
  client_->setFd(mine.release());
  EXPECT_EQ(log_.lines(), Lines{terminated(old)});
  rawSend(theirs.get(), "[1]");
  nextTurn();
  EXPECT_EQ(messages_, Lines{"[1]"});
  turnForAWhile();
  EXPECT_EQ(connects_, 1) << "the timer stays quiet while a socket is attached";
}

// --- the loss ---

TEST_F(AsyncClient, LogsOneLineWhenTheServerCloses) {
  connect();
  const int fd = client_->descriptor();
  const int before = client_->terminations();
  peer_.reset();
  nextTurn();
  turnForAWhile();
  EXPECT_EQ(client_->terminations(), before + 1);
  EXPECT_EQ(log_.lines(), Lines{terminated(fd)});
  EXPECT_FALSE(client_->isAttached());
  EXPECT_LT(::fcntl(fd, F_GETFD), 0);
}

TEST_F(AsyncClient, ReadsWhatTheServerSentBeforeItClosed) {
  connect();
  rawSend(peer_.get(), "[1]");
  rawSend(peer_.get(), "[2]");
  peer_.reset();
  turnUntilIdle();
  EXPECT_EQ(messages_, (Lines{"[1]", "[2]"}));
  EXPECT_FALSE(client_->isAttached());
}

TEST_F(AsyncClient, EndsItsConnectionWhenReadingFails) {
  connect();
  const int fd = client_->descriptor();
  send("[1]");
  log_.clear();
  peer_.reset();  // with a message unread, which the kernel reports
  nextTurn();
  EXPECT_EQ(log_.lines(),
            (Lines{"0 Api/Json/Async asyncRead: AsyncSender::asynRead(): read failed -> " +
                       std::string(std::strerror(ECONNRESET)),
                   terminated(fd)}));
  EXPECT_TRUE(messages_.empty());
}

TEST_F(AsyncClient, EndsItsConnectionWhenThereIsNothingToRead) {
  connect();
  const int fd = client_->descriptor();
  client_->readFdEvent(fd);
  EXPECT_EQ(log_.lines(), Lines{terminated(fd)});
  EXPECT_EQ(rawReceive(peer_.get()), "<end>");
}

TEST_F(AsyncClient, ConnectsAgainAfterItWroteToAServerThatWasGone) {
  connect(0);
  peer_.reset();
  send("[1]");
  nextTurn();
  EXPECT_EQ(connects_, 2);
}

// --- timeout() called by hand ---

TEST_F(AsyncClient, WorksOnTheConnectionThatReplacedAnother) {
  connect(0);
  const int old = client_->descriptor();
  {
    const Fail full(Call::kWrite, EAGAIN);
    send("[0]");
  }
  client_->timeout();
  EXPECT_EQ(client_->queued(), 0U);
  EXPECT_NE(client_->descriptor(), old) << "the old socket is held until the new one is there";
  EXPECT_EQ(rawReceive(peer_.get()), "<end>");
  const Fd another = server_.accept();
  rawSend(another.get(), "[1]");
  nextTurn();
  EXPECT_EQ(messages_, Lines{"[1]"});
  send("[2]");
  EXPECT_EQ(rawReceive(another.get()), "[2]");
  turnForAWhile();
  EXPECT_EQ(connects_, 2);
}

TEST_F(AsyncClient, KeepsNoSocketIfTheLoopRefusesTheReplacement) {
  connect();
  const auto before = openDescriptors();
  const int old = client_->descriptor();
  {
    const Fail fail(Call::kEpollCtl, ENOSPC, 1, 1);  // the old one is taken out first
    EXPECT_THROW(client_->timeout(), Kelvo::Exception);
  }
  auto expected = before;
  expected.erase(old);
  EXPECT_EQ(openDescriptors(), expected);
}

// --- its end ---

TEST_F(AsyncClient, TriesNothingOnceDestroyed) {
  make(0);
  client_.reset();
  connect(0);
  client_.reset();
  const Trace trace;
  turnForAWhile();
  EXPECT_EQ(trace.count(Call::kSocket), 0);
}

TEST_F(AsyncClient, IsDestroyedThroughEitherBase) {
  const auto before = openDescriptors();
  const auto connected = [this] {
    connects_ = 0;
    connect();
    peer_.reset();
    return std::move(client_);
  };
  std::unique_ptr<Kelvo::Platform::TimeoutHandler> asTimeoutHandler = connected();
  asTimeoutHandler.reset();
  std::unique_ptr<Tovik::AsyncSender> asSender = connected();
  asSender.reset();
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(AsyncClient, HearsNothingOnceAnotherCallbackOfTheSameTurnHasDestroyedIt) {
  std::unique_ptr<Tovik::AsyncClient> clients[2];
  Fd peers[2];
  int calls = 0;
  for (int i = 0; i < 2; ++i) {
    const auto destroyTheOther = [&, i](Tovik::AsyncClient&, const Tovik::Message&) {
      ++calls;
      clients[1 - i].reset();
    };
    clients[i] = std::make_unique<Tovik::AsyncClient>(
        server_.name(), destroyTheOther, [](Tovik::AsyncClient&) {}, kNever);
    clients[i]->timeout();
    peers[i] = server_.accept();
  }
  rawSend(peers[0].get(), "[0]");
  rawSend(peers[1].get(), "[1]");
  turnUntilIdle();
  EXPECT_EQ(calls, 1);
  EXPECT_NE(clients[0] == nullptr, clients[1] == nullptr);
  const int left = clients[0] == nullptr ? 1 : 0;
  EXPECT_TRUE(clients[left]->isAttached());
  EXPECT_EQ(rawReceive(peers[1 - left].get()), "<error>") << "a record was left unread";
}

TEST_F(AsyncClient, MayBeDestroyedByAnotherClientsAttempt) {
  make(0);
  Tovik::AsyncClient other(
      server_.name(), nullptr, [this](Tovik::AsyncClient&) { client_.reset(); }, kNever);
  EXPECT_TRUE(turnUntil([this] { return client_ == nullptr; }));
  turnForAWhile();
  EXPECT_LE(connects_, 1);
  EXPECT_TRUE(other.isAttached());
}

TEST_F(AsyncClient, ConnectsThoughItsServerAndManyOthersLiveOnTheSameLoop) {
  const std::string name = uniqueName();
  const Tovik::Server server(name, nullptr, admitAll);
  int connects = 0;
  std::vector<std::unique_ptr<Tovik::AsyncClient>> clients;
  for (int i = 0; i < 20; ++i) {
    clients.push_back(std::make_unique<Tovik::AsyncClient>(
        name, nullptr, [&connects](Tovik::AsyncClient&) { ++connects; }, kNever));
  }
  EXPECT_TRUE(turnUntil([&] { return connects == 20; }));
}
