// The order in which the library calls the system, its loop and the application, and what it says
// in between: a record is written while what it names is still there, a descriptor is detached
// before it is closed, and an error is looked up before anything can change it.

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Api/Json/Client.h"
#include "Api/Json/Server.h"
#include "tests/support/Journal.h"
#include "tests/tovik/Peers.h"

using Faults::Call;
using Faults::Fail;
using Lines = std::vector<std::string>;

namespace {

constexpr unsigned kAll = 0xF;

/// Writes a line when it is destroyed, and copies as often as it is copied. In a callback, it shows
/// when that callback's owner dies.
class Farewell {
 public:
  Farewell(Journal& journal, std::string line) : journal_(&journal), line_(std::move(line)) {}
  Farewell(const Farewell&) = default;
  Farewell(Farewell&& other) noexcept
      : journal_(std::exchange(other.journal_, nullptr)), line_(std::move(other.line_)) {}
  Farewell& operator=(const Farewell&) = delete;
  ~Farewell() {
    if (journal_ != nullptr) {
      journal_->note(line_);
    }
  }

 private:
  Journal* journal_;
  std::string line_;
};

// --- the sender ---

class Sender : public Tovik::AsyncSender {
 public:
  explicit Sender(Journal& journal) : journal_(journal) {}
  void readFdEvent(int /*fd*/) override {}
  void terminateConnection() override {
    journal_.note("terminate");
    AsyncSender::terminateConnection();
    if (whenTerminated) {
      std::exchange(whenTerminated, nullptr)();
    }
  }
  std::function<void()> whenTerminated;

 private:
  Journal& journal_;
};

class SenderOrder : public ::testing::Test {
 protected:
  /// Gives the sender a socket, which is "a".
  void attach() {
    sender->setFd(newSocket());
    journal.take();
  }
  int newSocket() {
    auto [near, far] = nonBlockingPair();
    peers.push_back(std::move(far));
    journal.name(near.get());
    return near.release();
  }
  void leaveBacklog() {
    const Fail full(Call::kWrite, EAGAIN);
    sender->asyncSendMsg(parsed("{}"));
    journal.take();
  }

  Journal journal{kAll};
  std::vector<Fd> peers;
  std::unique_ptr<Sender> sender = std::make_unique<Sender>(journal);
};

TEST_F(SenderOrder, OfAnotherSocketIsTheOldOnesEndAndThenItsOwnBeginning) {
  attach();
  sender->setFd(newSocket());
  EXPECT_EQ(journal.take(),
            (Lines{"terminate", "1 terminateConnection: AsyncSender::terminateConnection(): fd = a",
                   "detach a", "close a", "attach b"}));
}

TEST_F(SenderOrder, OfItsDestructionLeavesOutTheOverride) {
  attach();
  sender.reset();
  EXPECT_EQ(journal.take(),
            (Lines{"1 terminateConnection: AsyncSender::terminateConnection(): fd = a", "detach a",
                   "close a"}));
}

TEST_F(SenderOrder, OfSendingIsTheTextTheQueueAndTheWrite) {
  attach();
  sender->asyncSendMsg(parsed("{}"));
  EXPECT_EQ(journal.take(),
            (Lines{"3 asyncSendMsg: AsyncSender::asyncSendMSg() -> {}",
                   "2 flushQueue: AsyncSender::flushQueue(), queue size = 1", "write a {}"}));
}

TEST_F(SenderOrder, OfAFailedWriteIsItsRecordAndThenTheWishToWriteLater) {
  attach();
  const Fail broken(Call::kWrite, ENOBUFS);
  sender->asyncSendMsg(parsed("{}"));
  Lines lines = journal.take();
  lines.erase(lines.begin(), lines.begin() + 2);
  EXPECT_EQ(lines, (Lines{"write a {} fails", "strerror",
                          "0 flushQueue: AsyncSender::flushQueue(): write error No buffer space "
                          "available",
                          "change a"}));
}

TEST_F(SenderOrder, OfALossByWritingTouchesNothingAfterTheOverride) {
  attach();
  const Fail gone(Call::kWrite, EPIPE);
  sender->flushQueue();
  sender->asyncSendMsg(parsed("{}"));
  Lines lines = journal.take();
  lines.erase(lines.begin(), lines.begin() + 3);
  EXPECT_EQ(lines, (Lines{"write a {} fails", "terminate",
                          "1 terminateConnection: AsyncSender::terminateConnection(): fd = a",
                          "detach a", "close a"}));
}

TEST_F(SenderOrder, OfALossByWritingLeavesAConnectionAloneThatTheOverrideMakes) {
  attach();
  sender->whenTerminated = [&] { sender->setFd(newSocket()); };
  const Fail gone(Call::kWrite, EPIPE, 1);
  sender->asyncSendMsg(parsed("{}"));
  EXPECT_EQ(journal.take().back(), "attach b");
  EXPECT_TRUE(sender->isAttached());
}

TEST_F(SenderOrder, HasNothingInItWithoutASocketAndABacklog) {
  sender->flushQueue();
  sender->writeFdEvent(7);
  attach();
  leaveBacklog();
  sender->clearQueue();
  EXPECT_EQ(journal.take(), Lines{});
}

// --- the connection ---

class ConnectionOrder : public ::testing::Test {
 protected:
  ConnectionOrder() {
    auto [near, far] = nonBlockingPair();
    journal.name(near.get());
    peer = std::move(far);
    connection = std::make_unique<Tovik::Connection>(
        near.release(),
        [this, gone = Farewell(journal, "handlerGone")](auto&, auto&) { journal.note("handle"); });
    EXPECT_EQ(journal.take(), Lines{"attach a"});
  }
  Lines receive(const char* record) {
    rawSend(peer.get(), record);
    turn();
    return journal.take();
  }

  Journal journal{kAll};
  Fd peer;
  std::unique_ptr<Tovik::Connection> connection;
};

const Lines kEvent{"2 readFdEvent: Connection::readFdEvent(): fd = a", "read a"};

Lines operator+(Lines first, const Lines& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

TEST_F(ConnectionOrder, OfAMessageIsTheEventTheTextAndTheHandler) {
  EXPECT_EQ(receive("{}"), kEvent + (Lines{"3 readFdEvent: msg = '{}'", "handle"}));
}

TEST_F(ConnectionOrder, OfTheEndLooksNoFurther) {
  peer.reset();
  turn();
  EXPECT_EQ(journal.take(),
            kEvent + (Lines{"1 terminateConnection: AsyncSender::terminateConnection(): fd = a",
                            "detach a", "close a"}));
}

TEST_F(ConnectionOrder, OfASwitchIsItsAnswerAndThenItsRecord) {
  Kelvo::Platform::setDebugLevels("Tovik", 2);
  EXPECT_EQ(receive(kSubscribe),
            (Lines{"read a", R"(write a {"type":"reply","status":0})",
                   "1 handleNotifMsg: Connection::readFdEvent(): Client (fd = a) notification: "
                   "0 -> 1"}));
}

TEST_F(ConnectionOrder, OfASwitchWhoseAnswerFindsThePeerGoneGoesOnToItsRecord) {
  Kelvo::Platform::setDebugLevels("Tovik", 2);
  const Fail gone(Call::kWrite, EPIPE);
  EXPECT_EQ(receive(kSubscribe),
            (Lines{"read a", R"(write a {"type":"reply","status":0} fails)",
                   "1 terminateConnection: AsyncSender::terminateConnection(): fd = a", "detach a",
                   "close a",
                   "1 handleNotifMsg: Connection::readFdEvent(): Client (fd = -1) notification: "
                   "0 -> 1"}));
}

TEST_F(ConnectionOrder, OfItsDestructionIsItsHandlerAndThenItsSocket) {
  Kelvo::Platform::setDebugLevels("Tovik", 0);
  connection.reset();
  EXPECT_EQ(journal.take(), (Lines{"handlerGone", "detach a", "close a"}));
}

// --- the server ---

class ServerOrder : public ::testing::Test {
 protected:
  /// Starts the server, whose socket is "a".
  void start() {
    server = std::make_unique<Tovik::Server>(
        name, [gone = Farewell(journal, "handlerGone")](auto&, auto&) {},
        [this, gone = Farewell(journal, "validatorGone")](int, unsigned, unsigned) {
          journal.note("validate");
          return admits;
        });
  }
  /// What becomes of the next client, which is "b" at the server's end. Its numbers are left out.
  Lines meet() {
    journal.take();
    clients.push_back(rawConnect(name));
    journal.forget();  // the client's own calls
    turn();
    Lines lines = journal.take();
    for (auto& line : lines) {
      if (const auto ids = line.find(": pid"); ids != std::string::npos) {
        line.replace(ids, line.find(" =>") - ids, "");
      }
    }
    return lines;
  }

  Journal journal{3};
  const std::string name = uniqueName();
  bool admits = true;
  std::vector<Fd> clients;
  std::unique_ptr<Tovik::Server> server;
};

const Lines kJudged{"accept a b", "getsockopt b", "validate"};
const std::string kAccepted1 = "1 validateConnection: Server::validateConnection( b ) => accepted";

TEST_F(ServerOrder, OfItsConstructionEndsWithTheRecordOfASocketThatIsWatched) {
  start();
  EXPECT_EQ(journal.take(), (Lines{"socket a", "bind a", "listen a", "attach a",
                                   "0 Server: Server(): socket fd = a"}));
}

TEST_F(ServerOrder, OfAFailedConstructionIsTheSocketThenValidatorAndHandler) {
  for (const Call step : {Call::kBind, Call::kListen}) {
    const Fail taken(step, EADDRINUSE);
    const Fail close(Call::kClose, EIO);
    EXPECT_THROW(start(), Tovik::SocketException);
    Lines lines = journal.take();
    lines.erase(lines.begin(), lines.begin() + (step == Call::kBind ? 2 : 3));
    EXPECT_EQ(lines.at(0).substr(0, 6), "close ");
    lines.erase(lines.begin());
    EXPECT_EQ(lines, (Lines{"strerror", "validatorGone", "handlerGone"}));
  }
}

TEST_F(ServerOrder, OfAnAdmissionIsTheVerdictTheFlagsTheLoopAndTheRecord) {
  start();
  EXPECT_EQ(meet(),
            kJudged + (Lines{kAccepted1, "getfl b", "setfl b", "attach b",
                             "1 readFdEvent: Server::readFdEvent(): New connection, fd = b"}));
}

TEST_F(ServerOrder, OfARefusalIsTheVerdictAndTheClose) {
  start();
  admits = false;
  EXPECT_EQ(meet(),
            kJudged + (Lines{"1 validateConnection: Server::validateConnection( b ) => denied",
                             "close b"}));
}

TEST_F(ServerOrder, OfUnreadableCredentialsIsTheirRecordAndTheCloseAndNobodyIsAsked) {
  start();
  const Fail unknown(Call::kGetsockopt, ENOPROTOOPT);
  EXPECT_EQ(meet(),
            (Lines{"accept a b", "getsockopt b fails", "strerror",
                   "0 validateConnection: Server::validateConnection( b) => Protocol not available",
                   "close b"}));
}

TEST_F(ServerOrder, OfUnreadableFlagsIsTheirRecordAndTheClose) {
  start();
  const Fail unreadable(Call::kGetFl, EPERM);
  EXPECT_EQ(meet(),
            kJudged + (Lines{kAccepted1, "getfl b fails", "strerror",
                             "0 readFdEvent: Server::readFdEvent: Failed to GETFL -> Operation not "
                             "permitted",
                             "close b"}));
}

TEST_F(ServerOrder, OfAcceptingBeginsWithTheDeadEvenIfItFails) {
  start();
  meet();
  clients.clear();
  turn();
  const Fail exhausted(Call::kAccept, EMFILE);
  Lines lines = meet();
  lines.resize(4);  // the pause of the loop follows
  EXPECT_EQ(lines, (Lines{"handlerGone", "accept a fails", "strerror",
                          "0 readFdEvent: Server::readFdEvent: Failed to accept() -> Too many open "
                          "files"}));
}

TEST_F(ServerOrder, OfItsDestructionIsItsSocketThenItsConnectionsThenValidatorAndHandler) {
  start();
  meet();
  Kelvo::Platform::setDebugLevels("Tovik", 0);
  server.reset();
  EXPECT_EQ(journal.take(), (Lines{"detach a", "close a", "handlerGone", "detach b", "close b",
                                   "validatorGone", "handlerGone"}));
}

// --- the clients ---

class ClientOrder : public ::testing::Test {
 protected:
  /// Makes the client; its socket is "a" once it connects.
  void make() {
    client = std::make_unique<Tovik::AsyncClient>(
        name,
        [this, gone = Farewell(journal, "messageHandlerGone")](auto&, auto&) {
          journal.note("message");
        },
        [this, gone = Farewell(journal, "connectHandlerGone")](Tovik::AsyncClient& connected) {
          journal.note(connected.isAttached() ? "connected" : "not connected");
        },
        1000);
  }
  void connect() {
    make();
    EXPECT_TRUE(turnUntil([this] { return client->isAttached(); }));
    peer = Fd(::accept(listener.get(), nullptr, nullptr));
    journal.take();
  }
  Lines attempt() {
    journal.take();
    client->timeout();
    return journal.take();
  }

  const std::string name = uniqueName();
  const Fd listener = rawListen(name);
  Journal journal{kAll};
  Fd peer;
  std::unique_ptr<Tovik::AsyncClient> client;
};

const std::string kTick = "3 timeout: AsyncClient::timeout()";
const std::string kEndOfA = "1 terminateConnection: AsyncSender::terminateConnection(): fd = a";

TEST_F(ClientOrder, OfAnAttemptIsTheTickTheSocketTheLoopAndTheApplication) {
  make();
  EXPECT_EQ(attempt(),
            (Lines{kTick, "socket a", "connect a", "getfl a", "setfl a", "attach a", "connected"}));
}

TEST_F(ClientOrder, OfAnAttemptWhileConnectedEndsTheOldConnectionOnceTheNewOneStands) {
  connect();
  EXPECT_EQ(attempt(), (Lines{kTick, "socket b", "connect b", "getfl b", "setfl b", kEndOfA,
                              "detach a", "close a", "attach b", "connected"}));
}

TEST_F(ClientOrder, OfAFailedAttemptWhileConnectedEndsTheConnection) {
  connect();
  const Fail refused(Call::kConnect, ECONNREFUSED);
  EXPECT_EQ(attempt(), (Lines{kTick, "socket b", "connect b fails", "close b", kEndOfA, "detach a",
                              "close a"}));
}

TEST_F(ClientOrder, OfUnreadableFlagsIsTheirRecordAndTheClose) {
  make();
  const Fail unreadable(Call::kGetFl, EPERM);
  EXPECT_EQ(attempt(),
            (Lines{kTick, "socket a", "connect a", "getfl a fails", "strerror",
                   "0 createSocket: createSocket: Failed to GETFL -> Operation not permitted",
                   "close a"}));
}

TEST_F(ClientOrder, OfFlagsThatCannotBeSetIsTheCloseAndTheRecordOfItsError) {
  make();
  const Fail stubborn(Call::kSetFl, EPERM);
  const Fail close(Call::kClose, EIO);
  EXPECT_EQ(
      attempt(),
      (Lines{kTick, "socket a", "connect a", "getfl a", "setfl a fails", "close a fails",
             "strerror", "0 createSocket: createSocket: Failed to SETFL -> Input/output error"}));
}

TEST_F(ClientOrder, OfAMessageIsItsTextAndTheApplication) {
  connect();
  rawSend(peer.get(), "[1]");
  turn();
  EXPECT_EQ(journal.take(),
            (Lines{"read a", "3 readFdEvent: AsyncClient::readFdEvent(): msg = '[1]'", "message"}));
}

TEST_F(ClientOrder, OfItsDestructionIsItsHandlersAndThenItsSocket) {
  connect();
  Kelvo::Platform::setDebugLevels("Tovik", 0);
  client.reset();
  EXPECT_EQ(journal.take(),
            (Lines{"connectHandlerGone", "messageHandlerGone", "detach a", "close a"}));
}

TEST_F(ClientOrder, OfABlockingClientsFailedConnectKeepsItsReason) {
  const Fail refused(Call::kConnect, ECONNREFUSED);
  const Fail close(Call::kClose, EIO);
  EXPECT_THROW(Tovik::Client{name}, Tovik::SocketException);
  EXPECT_EQ(journal.take(), (Lines{"socket a", "connect a fails", "close a fails", "strerror"}));
}

TEST_F(ClientOrder, OfABlockingClientsFailedWriteIsItsRecordAndNoRead) {
  const Tovik::Client blocking(name);
  EXPECT_EQ(journal.take(), (Lines{"socket a", "connect a"}));
  const Fail gone(Call::kWrite, EPIPE);
  EXPECT_EQ(blocking.sendMsg(parsed("{}"), true), -1);
  EXPECT_EQ(journal.take(), (Lines{"write a {} fails", "strerror",
                                   "0 sendMsg: Client::sendMsg(): Failed to write() Broken pipe"}));
}

}  // namespace
