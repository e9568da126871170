#include "Api/Json/Server.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <memory>
#include <stdexcept>

#include "Kelvo/Exception.h"
#include "tests/scripted/Script.h"

using Faults::Call;
using Faults::Fail;

namespace {

const Lines kListens{"getFdControl 1", "socket a", "bind a 110", "listen a 5", "attach 1 a"};

class Server : public ::testing::Test {
 protected:
  /// Starts the server. Its socket appears as "a", its control has the number 1.
  void start() {
    server = std::make_unique<Tovik::Server>(
        name.c_str(),
        [farewell = Farewell("handlerGone")](Tovik::Connection&, const Tovik::Message&) {},
        [this, farewell = Farewell("validatorGone")](int, unsigned, unsigned) {
          script.note("validate");
          return admits;
        });
  }
  /// What a construction throws.
  std::string failure() {
    try {
      start();
    } catch (const Tovik::SocketException& exception) {
      return exception.what();
    }
    return "nothing";
  }
  /// A client that is admitted, or refused, by one event of the listening socket.
  Peer& meet() {
    peers.push_back(Peer::connectedTo(name));
    script.readable(script.fd('a'));
    return peers.back();
  }
  /// A subscribed client, which appears as "b" and has the control number 2.
  Peer& meetSubscriber() {
    Peer& peer = meet();
    peer.send(R"({"command":"set","notification":true})");
    script.readable(script.fd('b'));
    EXPECT_EQ(peer.receive(), R"({"type":"reply","status":0})");
    script.take();
    return peer;
  }
  static void notify(Tovik::Server& server) {
    Tovik::Message msg;
    msg.Parse(R"({"n":1})");
    server.notifyClients(msg);
  }

  Script script;
  const std::string name = freshName();
  bool admits = true;
  std::deque<Peer> peers;  // which leaves those in use where they are
  std::unique_ptr<Tovik::Server> server;
};

TEST_F(Server, AsksForItsControlBeforeItMakesTheSocketAndAttachesLast) {
  start();
  EXPECT_EQ(script.take(), kListens);
  EXPECT_EQ(script.watch(1).handler, server.get());
  EXPECT_FALSE(script.watch(1).writeInterest);
}

TEST_F(Server, LogsItsSocketOnceItIsAttached) {
  setLevels(1);
  start();
  Lines expected = kListens;
  expected.insert(expected.end(), {"stream",
                                   "output 0 Api/Json/Server Server: Server(): socket fd = " +
                                       std::to_string(script.fd('a')),
                                   "streamGone"});
  EXPECT_EQ(script.take(), expected);
}

TEST_F(Server, ReleasesItsControlWhenThereIsNoSocket) {
  const Fail none(Call::kSocket, EMFILE);
  EXPECT_EQ(failure(), "Too many open files");
  EXPECT_EQ(script.take(), (Lines{"getFdControl 1", "socket - fails", "strerror", "validatorGone",
                                  "release 1", "handlerGone"}));
}

TEST_F(Server, ClosesASocketThatCannotBeBoundAndKeepsTheReason) {
  const Fail taken(Call::kBind, EADDRINUSE);
  const Fail close(Call::kClose, EIO);
  EXPECT_EQ(failure(), "Address already in use");
  EXPECT_EQ(script.take(), (Lines{"getFdControl 1", "socket a", "bind a 110 fails", "close a fails",
                                  "strerror", "validatorGone", "release 1", "handlerGone"}));
}

TEST_F(Server, ClosesASocketThatCannotListenAndKeepsTheReason) {
  const Fail refused(Call::kListen, EOPNOTSUPP);
  const Fail close(Call::kClose, EIO);
  EXPECT_EQ(failure(), "Operation not supported");
  EXPECT_EQ(script.take(),
            (Lines{"getFdControl 1", "socket a", "bind a 110", "listen a 5 fails", "close a fails",
                   "strerror", "validatorGone", "release 1", "handlerGone"}));
}

TEST_F(Server, ClosesASocketThatTheLoopRefuses) {
  script.refusesToAttach = true;
  EXPECT_THROW(start(), Kelvo::Exception);
  EXPECT_EQ(script.take(),
            (Lines{"getFdControl 1", "socket a", "bind a 110", "listen a 5", "attach 1 a refused",
                   "close a", "validatorGone", "release 1", "handlerGone"}));
}

TEST_F(Server, JudgesAClientBeforeItsSocketIsMadeNonBlockingAndAttached) {
  start();
  script.take();
  meet();
  EXPECT_EQ(script.take(), (Lines{"accept a 110 b", "getsockopt b 12", "validate", "getfl b",
                                  "setfl b +nonblock", "getFdControl 2", "attach 2 b"}));
}

TEST_F(Server, LogsTheVerdictThenTheNewConnection) {
  start();
  setLevels(2);
  script.take();
  meet();
  const std::string fd = std::to_string(script.fd('b'));
  EXPECT_EQ(
      script.take(),
      (Lines{"accept a 110 b", "getsockopt b 12", "validate", "stream",
             "output 1 Api/Json/Server validateConnection: Server::validateConnection( " + fd +
                 " ): pid = " + std::to_string(::getpid()) +
                 ", uid = " + std::to_string(::getuid()) + ", gid = " + std::to_string(::getgid()) +
                 " => accepted",
             "streamGone", "getfl b", "setfl b +nonblock", "getFdControl 2", "attach 2 b", "stream",
             "output 1 Api/Json/Server readFdEvent: "
             "Server::readFdEvent(): New connection, fd = " +
                 fd,
             "streamGone"}));
}

TEST_F(Server, AcceptsOneClientPerEvent) {
  start();
  const Peer first = Peer::connectedTo(name);
  const Peer second = Peer::connectedTo(name);
  script.take();
  script.readable(script.fd('a'));
  EXPECT_EQ(script.take().size(), 7U);
  script.readable(script.fd('a'));
  EXPECT_EQ(script.take(), (Lines{"accept a 110 c", "getsockopt c 12", "validate", "getfl c",
                                  "setfl c +nonblock", "getFdControl 3", "attach 3 c"}));
}

TEST_F(Server, FreesTheDeadBeforeItAccepts) {
  start();
  meet().hangUp();
  script.readable(script.fd('b'));
  script.take();
  meet();
  EXPECT_EQ(script.take(), (Lines{"handlerGone", "accept a 110 c", "getsockopt c 12", "validate",
                                  "getfl c", "setfl c +nonblock", "getFdControl 3", "attach 3 c"}));
}

TEST_F(Server, FreesTheDeadEvenIfItCannotAccept) {
  start();
  meet().hangUp();
  script.readable(script.fd('b'));
  setLevels(1);
  script.take();
  const Fail exhausted(Call::kAccept, EMFILE);
  script.readable(script.fd('a'));
  EXPECT_EQ(script.take(), (Lines{"handlerGone", "accept a 110 - fails", "stream", "strerror",
                                  "output 0 Api/Json/Server readFdEvent: Server::readFdEvent: "
                                  "Failed to accept() -> Too many open files",
                                  "streamGone"}));
}

TEST_F(Server, FreesTheDeadAndNoOtherWhenAsked) {
  start();
  meet().hangUp();
  meet();
  script.readable(script.fd('b'));
  script.take();
  server->freeDeadConnections();
  EXPECT_EQ(script.take(), Lines{"handlerGone"});
  server->freeDeadConnections();
  EXPECT_EQ(script.take(), Lines{});
}

TEST_F(Server, ClosesARefusedClientWithNoWordOfItsOwn) {
  start();
  admits = false;
  setLevels(0xF);
  script.take();
  meet();
  const Lines lines = script.take();
  ASSERT_EQ(lines.size(), 7U);
  EXPECT_EQ(lines[3], "stream");
  EXPECT_NE(lines[4].find(" => denied"), std::string::npos) << lines[4];
  EXPECT_EQ(lines[5], "streamGone");
  EXPECT_EQ(lines[6], "close b");
}

TEST_F(Server, ClosesARefusedClientWithTheVerdictUnlogged) {
  start();
  admits = false;
  script.take();
  meet();
  EXPECT_EQ(script.take(), (Lines{"accept a 110 b", "getsockopt b 12", "validate", "close b"}));
}

TEST_F(Server, ClosesAClientWithoutCredentialsAfterLoggingWhyAndAsksNobody) {
  start();
  setLevels(1);
  script.take();
  std::string fd;
  script.whenClosing = [&] { fd = std::to_string(script.fd('b')); };
  const Fail unknown(Call::kGetsockopt, ENOPROTOOPT);
  meet();
  script.whenClosing = nullptr;
  EXPECT_EQ(script.take(),
            (Lines{"accept a 110 b", "getsockopt b 12 fails", "stream", "strerror",
                   "output 0 Api/Json/Server validateConnection: Server::validateConnection( " +
                       fd + ") => Protocol not available",
                   "streamGone", "close b"}));
}

TEST_F(Server, LogsUnreadableFlagsBeforeItClosesTheClient) {
  start();
  setLevels(1);
  script.take();
  const Fail unreadable(Call::kGetFl, EPERM);
  meet();
  EXPECT_EQ(script.take(), (Lines{"accept a 110 b", "getsockopt b 12", "validate", "getfl b fails",
                                  "stream", "strerror",
                                  "output 0 Api/Json/Server readFdEvent: Server::readFdEvent: "
                                  "Failed to GETFL -> Operation not permitted",
                                  "streamGone", "close b"}));
}

TEST_F(Server, LeavesAClientOpenWhoseFlagsCannotBeSet) {
  start();
  setLevels(1);
  script.take();
  const Fail stubborn(Call::kSetFl, EPERM);
  meet();
  EXPECT_EQ(script.take(), (Lines{"accept a 110 b", "getsockopt b 12", "validate", "getfl b",
                                  "setfl b +nonblock fails", "stream", "strerror",
                                  "output 0 Api/Json/Server readFdEvent: Server::readFdEvent: "
                                  "Failed to SETFL -> Operation not permitted",
                                  "streamGone"}));
  EXPECT_EQ(::close(script.fd('b')), 0);
}

TEST_F(Server, LeavesAClientOpenWhenTheValidatorThrows) {
  server = std::make_unique<Tovik::Server>(
      name.c_str(), nullptr,
      [](int, unsigned, unsigned) -> bool { throw std::runtime_error("no verdict"); });
  setLevels(0xF);
  script.take();
  const Peer peer = Peer::connectedTo(name);
  EXPECT_THROW(script.readable(script.fd('a')), std::runtime_error);
  EXPECT_EQ(script.take(), (Lines{"accept a 110 b", "getsockopt b 12"}));
  EXPECT_EQ(::close(script.fd('b')), 0);
}

TEST_F(Server, LeavesAClientOpenWhenThereIsNoValidator) {
  server = std::make_unique<Tovik::Server>(name.c_str(), nullptr, nullptr);
  script.take();
  const Peer peer = Peer::connectedTo(name);
  EXPECT_THROW(script.readable(script.fd('a')), std::bad_function_call);
  EXPECT_EQ(script.take(), (Lines{"accept a 110 b", "getsockopt b 12"}));
  EXPECT_EQ(::close(script.fd('b')), 0);
}

TEST_F(Server, ClosesAClientThatTheLoopRefuses) {
  start();
  script.take();
  script.refusesToAttach = true;
  EXPECT_THROW(meet(), Kelvo::Exception);
  EXPECT_EQ(script.take(),
            (Lines{"accept a 110 b", "getsockopt b 12", "validate", "getfl b", "setfl b +nonblock",
                   "getFdControl 2", "attach 2 b refused", "release 2", "handlerGone", "close b"}));
}

TEST_F(Server, IsDestroyedSocketFirstThenConnectionsThenValidatorControlAndHandler) {
  start();
  meet();
  script.take();
  script.showsDescriptorQueries = true;
  script.showsHandlersEnds = true;
  server.reset();
  EXPECT_EQ(script.take(), (Lines{"fd 1", "detach 1", "close a", "handlerGone", "fd 2", "detach 2",
                                  "release 2", "close b", "base ~FdEventHandler", "validatorGone",
                                  "release 1", "handlerGone", "base ~FdEventHandler"}));
}

TEST_F(Server, NotifiesSubscribersOnlyAndNeverWantsWriteEventsItself) {
  start();
  Peer& subscriber = meetSubscriber();
  meet();
  script.take();
  notify(*server);
  EXPECT_EQ(script.take(), (Lines{R"(write b {"n":1})", "interest 2 off"}));
  EXPECT_NE(subscriber.receive(), "<nothing>");
  EXPECT_FALSE(script.watch(1).writeInterest);
}

TEST_F(Server, HandsANotificationToADeadSubscriberUntilItIsFreed) {
  start();
  meetSubscriber().hangUp();
  script.readable(script.fd('b'));
  setLevels(8);
  script.take();
  notify(*server);
  EXPECT_EQ(
      script.take(),
      (Lines{"stream",
             R"(output 3 Api/Json/Async asyncSendMsg: AsyncSender::asyncSendMSg() -> {"n":1})",
             "streamGone"}));
  server->freeDeadConnections();
  script.take();
  notify(*server);
  EXPECT_EQ(script.take(), Lines{});
}

TEST_F(Server, TakesNoNoticeOfWriteEvents) {
  start();
  setLevels(0xF);
  script.take();
  script.showsDescriptorQueries = true;
  server->writeFdEvent(script.fd('a'));
  EXPECT_EQ(script.take(), Lines{});
}

TEST_F(Server, LeavesExceptionsToTheBaseLibrary) {
  start();
  script.take();
  Kelvo::Platform::FdEventHandler& handler = *server;
  EXPECT_FALSE(handler.handleFdException(3));
  EXPECT_EQ(script.take(), Lines{"base handleFdException"});
}

TEST_F(Server, EndsTheProcessOverANameThatDoesNotFit) {
  EXPECT_DEATH(Tovik::Server(std::string(107, 'n'), nullptr, nullptr), "buffer overflow detected");
}

TEST_F(Server, TakesANameThatJustFits) {
  const std::string longest = name + std::string(106 - name.size(), 'n');
  server = std::make_unique<Tovik::Server>(longest, nullptr, nullptr);
  EXPECT_EQ(script.take(), kListens);
  EXPECT_TRUE(Peer::connectedTo(longest).valid());
}

}  // namespace
