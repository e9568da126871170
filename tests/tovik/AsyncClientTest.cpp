// How the asynchronous client connects, loses its connection and connects again.

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

#include "Api/Json/Server.h"
#include "tests/tovik/AsyncClientSupport.h"

using Faults::Call;
using Faults::Fail;
using Faults::Trace;
using Kelvo::Platform::EventLoop;
using Calls = std::vector<Call>;

namespace {

const std::string kGetFlFailed =
    "0 Api/Json/Client createSocket: createSocket: Failed to GETFL -> ";
const std::string kSetFlFailed =
    "0 Api/Json/Client createSocket: createSocket: Failed to SETFL -> ";

using Clock = std::chrono::steady_clock;

}  // namespace

// --- the attempt ---

TEST_F(AsyncClient, DoesNotConnectWhileItIsMade) {
  const Trace trace;
  make(kNever);
  EXPECT_EQ(trace.count(Call::kSocket), 0);
  EXPECT_FALSE(client_->isAttached());
  EXPECT_EQ(log_.lines(), Lines());
}

TEST_F(AsyncClient, ConnectsOnTheLoopsNextTurn) {
  make(kNever);
  nextTurn();
  EXPECT_EQ(connects_, 1);
  EXPECT_TRUE(client_->isAttached());
  EXPECT_TRUE(server_.hasClient());
  EXPECT_EQ(log_.lines(), Lines{kAttempt});
}

TEST_F(AsyncClient, IsAHandlerOfTimeoutsFirstAndASenderSecond) {
  EXPECT_TRUE((std::is_base_of_v<Kelvo::Platform::TimeoutHandler, Tovik::AsyncClient>));
  EXPECT_TRUE((std::is_base_of_v<Tovik::AsyncSender, Tovik::AsyncClient>));
  make(kNever);
  const Tovik::AsyncClient& client = *client_;
  EXPECT_EQ(static_cast<const void*>(static_cast<const Kelvo::Platform::TimeoutHandler*>(&client)),
            static_cast<const void*>(&client));
}

TEST_F(AsyncClient, IsAttachedWhenItsConnectHandlerRuns) {
  onConnect_ = [this] {
    EXPECT_TRUE(client_->isAttached());
    send("[1]");
  };
  connect();
  EXPECT_EQ(rawReceive(peer_.get()), "[1]");
}

TEST_F(AsyncClient, SetsItsSocketNonBlockingOnlyOnceItIsConnected) {
  make(kNever);
  const Trace trace;
  client_->timeout();
  ASSERT_EQ(socketCalls(trace), (Calls{Call::kSocket, Call::kConnect, Call::kGetFl, Call::kSetFl}));
  const int fd = lastSocket(trace);
  EXPECT_EQ(trace.of(Call::kConnect).at(0).fd, fd);
  EXPECT_EQ(trace.of(Call::kGetFl).at(0).fd, fd);
  EXPECT_EQ(trace.of(Call::kSetFl).at(0).fd, fd);
  EXPECT_EQ(trace.of(Call::kGetFl).at(0).size, 0U);
  EXPECT_EQ(trace.of(Call::kGetFl).at(0).result & O_NONBLOCK, 0);
  EXPECT_EQ(client_->descriptor(), fd);
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

TEST_F(AsyncClient, HasASequencedPacketSocket) {
  connect();
  int type = 0;
  socklen_t size = sizeof type;
  ASSERT_EQ(::getsockopt(client_->descriptor(), SOL_SOCKET, SO_TYPE, &type, &size), 0);
  EXPECT_EQ(type, SOCK_SEQPACKET);
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

TEST_F(AsyncClient, LogsItsAttemptBeforeItMakesIt) {
  make(kNever);
  const Fail fail(Call::kGetFl, EACCES);
  client_->timeout();
  EXPECT_EQ(log_.lines(), (Lines{kAttempt, kGetFlFailed + "Permission denied"}));
}

// --- the attempt that fails ---

TEST_F(AsyncClient, SaysNothingMoreIfNoServerListens) {
  server_.stop();
  make(kNever);
  const auto before = openDescriptors();
  nextTurn();
  EXPECT_EQ(log_.lines(), Lines{kAttempt});
  EXPECT_EQ(connects_, 0);
  EXPECT_FALSE(client_->isAttached());
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(AsyncClient, IsSilentAboutItsSocketAndItsConnect) {
  make(kNever);
  const auto before = openDescriptors();
  for (const Call call : {Call::kSocket, Call::kConnect}) {
    log_.clear();
    const Fail fail(call, EMFILE, 1);
    client_->timeout();
    EXPECT_EQ(fail.hits(), 1);
    EXPECT_EQ(log_.lines(), Lines{kAttempt});
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(AsyncClient, TerminatesOnceForEachFailedAttempt) {
  make(kNever);
  for (const Call call : {Call::kSocket, Call::kConnect, Call::kGetFl, Call::kSetFl}) {
    const int before = client_->terminations();
    const Fail fail(call, EACCES, 1);
    client_->timeout();
    EXPECT_EQ(client_->terminations(), before + 1);
    EXPECT_FALSE(client_->isAttached());
  }
  EXPECT_EQ(connects_, 0);
}

TEST_F(AsyncClient, LogsThatGettingTheFlagsFailedAndThenCloses) {
  make(kNever);
  const auto before = openDescriptors();
  const Trace trace;
  const Fail getFl(Call::kGetFl, EACCES);
  const Fail close(Call::kClose, EIO);
  client_->timeout();
  EXPECT_EQ(socketCalls(trace),
            (Calls{Call::kSocket, Call::kConnect, Call::kGetFl, Call::kStrerror, Call::kClose}));
  EXPECT_EQ(trace.of(Call::kClose).at(0).fd, lastSocket(trace));
  EXPECT_EQ(log_.lines(0), Lines{kGetFlFailed + "Permission denied"});
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(AsyncClient, ClosesAndThenLogsThatSettingTheFlagsFailed) {
  make(kNever);
  const auto before = openDescriptors();
  const Trace trace;
  const Fail setFl(Call::kSetFl, EACCES);
  client_->timeout();
  EXPECT_EQ(socketCalls(trace), (Calls{Call::kSocket, Call::kConnect, Call::kGetFl, Call::kSetFl,
                                       Call::kClose, Call::kStrerror}));
  EXPECT_EQ(trace.of(Call::kClose).at(0).fd, lastSocket(trace));
  EXPECT_EQ(log_.lines(0), Lines{kSetFlFailed + "Permission denied"});
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(AsyncClient, LogsTheErrorThatTheCloseLeavesIfSettingTheFlagsFailed) {
  make(kNever);
  const Fail setFl(Call::kSetFl, EACCES);
  const Fail close(Call::kClose, EIO);
  client_->timeout();
  EXPECT_EQ(log_.lines(0), Lines{kSetFlFailed + std::strerror(EIO)});
}

TEST_F(AsyncClient, StillHoldsItsSocketWhenItLogsAboutGettingTheFlagsOnly) {
  make(kNever);
  const Trace trace;
  const OpenAtEachRecord open;
  {
    const Fail getFl(Call::kGetFl, EACCES);
    client_->timeout();
    EXPECT_EQ(open.all().at(0).count(lastSocket(trace)), 1U);
  }
  const Fail setFl(Call::kSetFl, EACCES);
  client_->timeout();
  EXPECT_EQ(open.all().at(1).count(lastSocket(trace)), 0U);
}

TEST_F(AsyncClient, DoesNotAskForAnErrorsTextUnlessItIsLogged) {
  make(kNever);
  Kelvo::Platform::setDebugLevels("Tovik", 0xE);
  const Trace trace;
  for (const Call call : {Call::kGetFl, Call::kSetFl}) {
    const Fail fail(call, EACCES);
    client_->timeout();
  }
  EXPECT_EQ(trace.count(Call::kStrerror), 0);
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

TEST_F(AsyncClient, DoesNotTryAgainBeforeItsIntervalIsOver) {
  server_.stop();
  make(kNever);
  const Trace trace;
  nextTurn();
  turnForAWhile();
  EXPECT_EQ(trace.count(Call::kSocket), 1);
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

TEST_F(AsyncClient, KeepsAConnectionForLongerThanItsInterval) {
  connect(1);
  const auto start = Clock::now();
  EXPECT_TRUE(turnUntil([&] { return Clock::now() - start > std::chrono::milliseconds(1200); }));
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
  auto [mine, theirs] = rawPair();
  setNonBlocking(mine.get());
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
  peer_.reset();
  nextTurn();
  EXPECT_EQ(log_.lines(), Lines{terminated(fd)});
  EXPECT_FALSE(client_->isAttached());
  EXPECT_LT(::fcntl(fd, F_GETFD), 0);
}

TEST_F(AsyncClient, DropsItsBacklogWhenTheServerCloses) {
  connect();
  {
    const Fail full(Call::kWrite, EAGAIN);
    send("[1]");
    send("[2]");
  }
  EXPECT_EQ(client_->queued(), 2U);
  peer_.reset();
  nextTurn();
  EXPECT_EQ(client_->queued(), 0U);
}

TEST_F(AsyncClient, TerminatesOnceForALoss) {
  connect();
  const int before = client_->terminations();
  peer_.reset();
  nextTurn();
  turnForAWhile();
  EXPECT_EQ(client_->terminations(), before + 1);
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

TEST_F(AsyncClient, EndsItsConnectionAtAnEmptyRecord) {
  connect();
  const int fd = client_->descriptor();
  rawSend(peer_.get(), "");
  nextTurn();
  EXPECT_EQ(log_.lines(), Lines{terminated(fd)});
}

TEST_F(AsyncClient, EndsItsConnectionAtARecordThatStartsWithANul) {
  connect();
  const int fd = client_->descriptor();
  rawSend(peer_.get(), std::string("\0[1]", 4));
  nextTurn();
  EXPECT_EQ(log_.lines(), Lines{terminated(fd)});
  EXPECT_TRUE(messages_.empty());
}

TEST_F(AsyncClient, EndsItsConnectionWhenItWritesToAServerThatIsGone) {
  connect();
  const int fd = client_->descriptor();
  const int before = client_->terminations();
  peer_.reset();
  log_.clear();
  send("[1]");
  EXPECT_EQ(log_.lines(1), Lines{terminated(fd)});
  EXPECT_EQ(log_.lines(0), Lines());
  EXPECT_EQ(client_->queued(), 0U);
  EXPECT_EQ(client_->terminations(), before + 1);
  turnForAWhile();
  EXPECT_EQ(client_->terminations(), before + 1);
}

TEST_F(AsyncClient, ConnectsAgainAfterItWroteToAServerThatWasGone) {
  connect(0);
  peer_.reset();
  send("[1]");
  nextTurn();
  EXPECT_EQ(connects_, 2);
}

TEST_F(AsyncClient, LeavesTheSignalOfABrokenPipeAsTheProcessHasIt) {
  connect();
  const auto check = [this] {
    std::signal(SIGPIPE, SIG_DFL);
    peer_.reset();
    send("[1]");
    struct sigaction action {};
    sigset_t blocked;
    ::sigaction(SIGPIPE, nullptr, &action);
    ::sigprocmask(SIG_BLOCK, nullptr, &blocked);
    const bool untouched = action.sa_handler == SIG_DFL && !::sigismember(&blocked, SIGPIPE);
    std::exit(untouched && !client_->isAttached() ? 0 : 1);
  };
  EXPECT_EXIT(check(), testing::ExitedWithCode(0), "");
}

// --- timeout() called by hand ---

TEST_F(AsyncClient, ReplacesItsConnectionWhenToldToConnect) {
  connect();
  const int old = client_->descriptor();
  {
    const Fail full(Call::kWrite, EAGAIN);
    send("[1]");
  }
  log_.clear();
  client_->timeout();
  EXPECT_EQ(log_.lines(), (Lines{kAttempt, terminated(old)}));
  EXPECT_EQ(connects_, 2);
  EXPECT_EQ(client_->queued(), 0U);
  EXPECT_NE(client_->descriptor(), old) << "the old socket is held until the new one is there";
  EXPECT_EQ(rawReceive(peer_.get()), "<end>");
}

TEST_F(AsyncClient, WorksOnTheConnectionThatReplacedAnother) {
  connect(0);
  client_->timeout();
  const Fd another = server_.accept();
  rawSend(another.get(), "[1]");
  nextTurn();
  EXPECT_EQ(messages_, Lines{"[1]"});
  send("[2]");
  EXPECT_EQ(rawReceive(another.get()), "[2]");
  turnForAWhile();
  EXPECT_EQ(connects_, 2);
}

TEST_F(AsyncClient, GivesItsConnectionUpIfToldToConnectWhenNobodyListens) {
  connect();
  const int old = client_->descriptor();
  {
    const Fail full(Call::kWrite, EAGAIN);
    send("[1]");
  }
  log_.clear();
  server_.stop();
  client_->timeout();
  EXPECT_EQ(log_.lines(), (Lines{kAttempt, terminated(old)}));
  EXPECT_EQ(client_->queued(), 0U);
  EXPECT_EQ(rawReceive(peer_.get()), "<end>");
  EXPECT_EQ(connects_, 1);
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

TEST_F(AsyncClient, ConnectsAtOnceWhenToldToByHand) {
  make(kNever);
  client_->timeout();
  EXPECT_EQ(connects_, 1);
  turnForAWhile();
  EXPECT_EQ(connects_, 1);
}

// --- its end ---

TEST_F(AsyncClient, ClosesItsConnectionWhenDestroyed) {
  connect();
  const int fd = client_->descriptor();
  client_.reset();
  EXPECT_EQ(log_.lines(), Lines{terminated(fd)});
  EXPECT_EQ(rawReceive(peer_.get()), "<end>");
}

TEST_F(AsyncClient, SaysNothingWhenDestroyedWithoutAConnection) {
  server_.stop();
  make(kNever);
  nextTurn();
  log_.clear();
  client_.reset();
  EXPECT_EQ(log_.lines(), Lines());
}

TEST_F(AsyncClient, TriesNothingOnceDestroyed) {
  make(0);
  client_.reset();
  connect(0);
  client_.reset();
  const Trace trace;
  turnForAWhile();
  EXPECT_EQ(trace.count(Call::kSocket), 0);
}

TEST_F(AsyncClient, LeavesNoDescriptorBehind) {
  const auto before = openDescriptors();
  connect();
  client_.reset();
  peer_.reset();
  EXPECT_EQ(openDescriptors(), before);
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

TEST_F(AsyncClient, ReleasesItsHandlersWhenDestroyed) {
  const auto kept = std::make_shared<int>(0);
  auto client = std::make_unique<Tovik::AsyncClient>(
      server_.name(), [kept](Tovik::AsyncClient&, const Tovik::Message&) {},
      [kept](Tovik::AsyncClient&) {}, kNever);
  EXPECT_EQ(kept.use_count(), 3);
  client.reset();
  EXPECT_EQ(kept.use_count(), 1);
}

TEST_F(AsyncClient, MayBeDestroyedByAnotherClientsHandler) {
  connect();
  Fd otherPeer;
  const auto destroyThis = [this](Tovik::AsyncClient&, const Tovik::Message&) { client_.reset(); };
  Tovik::AsyncClient other(
      server_.name(), destroyThis, [](Tovik::AsyncClient&) {}, kNever);
  other.timeout();
  otherPeer = server_.accept();
  rawSend(otherPeer.get(), "[1]");
  turnUntilIdle();
  EXPECT_EQ(client_, nullptr);
  EXPECT_EQ(rawReceive(peer_.get()), "<end>");
  EXPECT_TRUE(other.isAttached());
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
  const Tovik::Server server(
      name, [](Tovik::Connection&, const Tovik::Message&) {},
      [](int, unsigned, unsigned) { return true; });
  int connects = 0;
  std::vector<std::unique_ptr<Tovik::AsyncClient>> clients;
  for (int i = 0; i < 20; ++i) {
    clients.push_back(std::make_unique<Tovik::AsyncClient>(
        name, nullptr, [&connects](Tovik::AsyncClient&) { ++connects; }, kNever));
  }
  EXPECT_TRUE(turnUntil([&] { return connects == 20; }));
}

TEST_F(AsyncClient, TriesAtMostOnceAMillisecondHoweverShortItsInterval) {
  for (const int interval : {0, -1}) {
    WatchedClient client(uniqueName(), nullptr, nullptr, interval);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(turnUntil([&] { return client.terminations() >= 21; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
  }
}

TEST_F(AsyncClient, LivesBesideOthersOfTheSameServer) {
  connect(0);
  int others = 0;
  std::vector<std::unique_ptr<Tovik::AsyncClient>> clients;
  std::vector<Fd> peers;
  for (int i = 0; i < 4; ++i) {
    clients.push_back(std::make_unique<Tovik::AsyncClient>(
        server_.name(), nullptr, [&](Tovik::AsyncClient&) { ++others; }, 0));
    EXPECT_TRUE(turnUntil([&] { return others == i + 1; }));
    peers.push_back(server_.accept());
  }
  turnForAWhile();
  EXPECT_EQ(others, 4);
  EXPECT_EQ(connects_, 1);
}
