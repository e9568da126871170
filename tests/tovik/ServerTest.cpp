// The listening end: accepting, admitting, broadcasting, freeing, and what happens when a step of
// it fails. Clients are raw sockets.

#include "Api/Json/Server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "Kelvo/Exception.h"
#include "Kelvo/Platform/TimeoutHandler.h"
#include "tests/kelvo/Handlers.h"
#include "tests/support/Memory.h"
#include "tests/tovik/Peers.h"

using Faults::Call;
using Faults::Fail;
using Faults::Trace;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

constexpr auto kNews = R"({"news":1})";

class Server : public ::testing::Test {
 protected:
  Server() { start(); }

  void start() {
    Trace trace;
    server = std::make_unique<Tovik::Server>(
        name,
        [this, copies = copies](Tovik::Connection& from, const Tovik::Message& msg) {
          handled.push_back(compact(msg));
          if (onMessage) {
            onMessage(from, msg);
          }
        },
        [this](int pid, unsigned uid, unsigned gid) { return validator(pid, uid, gid); });
    listening = trace.of(Call::kListen).at(0).fd;
  }

  /// The connections that exist: each holds a copy of the server's handler.
  long connections() const { return copies.use_count() - 2; }

  /// A client that waits to be accepted.
  Fd knock() const { return rawConnect(name); }

  /// A client that has been admitted; `acceptedFd` is the server's end.
  Fd join() {
    Trace trace;
    Fd client = knock();
    EXPECT_TRUE(turn());
    acceptedFd = static_cast<int>(trace.of(Call::kAccept).at(0).result);
    return client;
  }

  Fd joinSubscribed() {
    Fd client = join();
    rawSend(client.get(), kSubscribe);
    EXPECT_TRUE(turn());
    EXPECT_EQ(rawReceiveNow(client.get()), kAccepted);
    return client;
  }

  static std::string line(int level, const std::string& function, const std::string& text) {
    return std::to_string(level) + " Api/Json/Server " + function + ": " + text;
  }
  static std::string admittedLine(int fd) {
    return line(1, "readFdEvent",
                "Server::readFdEvent(): New connection, fd = " + std::to_string(fd));
  }
  static std::string errorLine(const std::string& what, int error) {
    return line(0, "readFdEvent", "Server::readFdEvent: Failed to " + what + " -> ") +
           std::strerror(error);
  }

  const std::string name = uniqueName();
  const std::shared_ptr<int> copies = std::make_shared<int>();
  std::vector<std::string> handled;
  std::function<void(Tovik::Connection&, const Tovik::Message&)> onMessage;
  Tovik::Server::Validator validator = admitAll;
  std::unique_ptr<Tovik::Server> server;
  int listening = -1;
  int acceptedFd = -1;
};

// --- the listening socket ---

TEST_F(Server, ListensOnABlockingSocketThatChildrenInherit) {
  server.reset();
  Trace trace;
  start();
  ASSERT_EQ(trace.count(Call::kListen), 1);
  EXPECT_EQ(trace.of(Call::kListen).at(0).size, 5U) << "the backlog";
  EXPECT_EQ(::fcntl(listening, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(::fcntl(listening, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(watchedEvents(listening), unsigned{EPOLLIN});
  trace.clear();
  server->writeFdEvent(listening);
  EXPECT_THAT(trace.calls(), IsEmpty());
}

TEST_F(Server, IsReachedByTheWholeAddressOnly) {
  for (const std::size_t length : {3 + name.size(), 4 + name.size(), std::size_t{109}}) {
    EXPECT_LT(rawConnect(name, static_cast<socklen_t>(length)).get(), 0);
    EXPECT_EQ(errno, ECONNREFUSED);
  }
  EXPECT_GE(knock().get(), 0);
}

TEST_F(Server, RefusesANameThatIsTakenAndLeavesTheFirstServerWorking) {
  const auto before = openDescriptors();
  try {
    Tovik::Server second(name, nullptr, admitAll);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const Tovik::SocketException& exception) {
    EXPECT_STREQ(exception.what(), std::strerror(EADDRINUSE));
    EXPECT_STREQ(exception.name(), "Tovik::SocketException");
  }
  EXPECT_EQ(openDescriptors(), before);
  const Fd client = join();
  rawSend(client.get(), kNews);
  EXPECT_TRUE(turn());
  EXPECT_THAT(handled, ElementsAre(kNews));
}

class ServerWhoseSetUpFails : public Server,
                              public ::testing::WithParamInterface<std::pair<Call, int>> {
 protected:
  ServerWhoseSetUpFails() { server.reset(); }
};

TEST_P(ServerWhoseSetUpFails, ThrowsThatReasonAndLeavesNothingBehind) {
  const auto before = openDescriptors();
  CapturedLog log;
  {
    const Fail fail(GetParam().first, GetParam().second, 1);
    const Fail alsoClosing(Call::kClose, EIO);  // must not change the reason
    try {
      start();
      ADD_FAILURE() << "nothing was thrown";
    } catch (const Tovik::SocketException& exception) {
      EXPECT_STREQ(exception.what(), std::strerror(GetParam().second));
      EXPECT_TRUE(exception.external());
    }
    EXPECT_EQ(fail.hits(), 1);
  }
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_EQ(copies.use_count(), 1);
  start();  // the name is free
}

TEST_P(ServerWhoseSetUpFails, ReportsMinusTheErrorFromItsFirstStep) {
  start();
  const auto before = openDescriptors();
  const Fail fail(GetParam().first, GetParam().second, 1);
  const Fail alsoClosing(Call::kClose, EIO);
  EXPECT_EQ(server->createSocket(uniqueName()), -GetParam().second);
  EXPECT_EQ(openDescriptors(), before);
}

INSTANTIATE_TEST_SUITE_P(Step, ServerWhoseSetUpFails,
                         ::testing::Values(std::pair(Call::kSocket, EMFILE),
                                           std::pair(Call::kBind, EACCES),
                                           std::pair(Call::kListen, EOPNOTSUPP)),
                         [](const auto& step) { return std::to_string(step.param.second); });

TEST_F(Server, LeavesNothingBehindWhenItsSocketCannotBeWatched) {
  server.reset();
  const auto before = openDescriptors();
  CapturedLog log;
  {
    const Fail fail(Call::kEpollCtl, ENOSPC, 1);
    EXPECT_THROW(start(), Kelvo::Exception);
  }
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_EQ(copies.use_count(), 1);
  start();
}

TEST_F(Server, MakesASocketThatListensForItsCallerAndAcceptsOnIt) {
  const std::string another = uniqueName();
  const Fd made(server->createSocket(another));
  ASSERT_GE(made.get(), 0);
  const Fd client = rawConnect(another);
  EXPECT_GE(client.get(), 0);
  EXPECT_EQ(server->createSocket(name), -EADDRINUSE);
  server->readFdEvent(made.get());
  EXPECT_EQ(connections(), 1);
}

// --- accepting ---

TEST_F(Server, AcceptsOneClientInEachEvent) {
  const Fd clients[] = {knock(), knock(), knock()};
  Trace trace;
  for (int admitted = 1; admitted <= 3; ++admitted) {
    EXPECT_TRUE(turn());
    EXPECT_EQ(trace.count(Call::kAccept), admitted);
    EXPECT_EQ(connections(), admitted);
  }
  EXPECT_FALSE(turn());
  EXPECT_EQ(trace.of(Call::kAccept).at(0).fd, listening);
  EXPECT_EQ(trace.of(Call::kAccept).at(0).size, 110U) << "room for a whole address";
}

TEST_F(Server, MakesAnAdmittedSocketNonBlockingAndKeepsItsOtherFlags) {
  Trace trace;
  const Fd client = join();
  const auto got = trace.of(Call::kGetFl);
  const auto set = trace.of(Call::kSetFl);
  ASSERT_EQ(got.size(), 1U);
  ASSERT_EQ(set.size(), 1U);
  EXPECT_EQ(set[0].fd, acceptedFd);
  EXPECT_EQ(static_cast<long>(set[0].size), got[0].result | O_NONBLOCK);
  EXPECT_NE(::fcntl(acceptedFd, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(::fcntl(acceptedFd, F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(Server, AcceptsAClientThatHasAlreadyLeft) {
  knock().reset();
  EXPECT_TRUE(turn());
  EXPECT_EQ(connections(), 1);
  EXPECT_TRUE(turn());  // the connection reads its end
  server->freeDeadConnections();
  EXPECT_EQ(connections(), 0);
}

TEST_F(Server, LogsAFailedAcceptAndGoesOn) {
  for (const int error : {EAGAIN, ECONNABORTED, EINTR, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM}) {
    const Fd client = knock();
    const auto before = openDescriptors();
    CapturedLog log;
    {
      const Fail fail(Call::kAccept, error, 1);
      EXPECT_TRUE(turn());
    }
    EXPECT_THAT(log.lines(), ElementsAre(errorLine("accept()", error)));
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(connections(), 0);
    ASSERT_TRUE(turnUntil([&] { return connections() == 1; }));
    server.reset();
    start();
  }
}

TEST_F(Server, DoesNotSpinOnAListeningSocketThatAChildHasShutDown) {
  ASSERT_TRUE(inChild([this] { return ::shutdown(listening, SHUT_RDWR) == 0; }));
  CapturedLog log;
  turnUntil([] { return false; }, std::chrono::milliseconds(300));
  EXPECT_LE(log.lines().size(), 10U);
  EXPECT_GE(log.lines().size(), 3U);
  EXPECT_THAT(log.lines(), Each(errorLine("accept()", EINVAL)));
}

/// That a client of this process is served under that name.
bool servesUnder(const std::string& name) {
  const Fd client = rawConnect(name);
  rawSend(client.get(), kSubscribe);
  return turnUntil([&] {
           pollfd query{client.get(), POLLIN, 0};
           return ::poll(&query, 1, 0) == 1;
         }) &&
         rawReceiveNow(client.get()) == kAccepted;
}

TEST_F(Server, WorksInAForkedChildWithALoopOfItsOwnAndGoesOnInTheParent) {
  const auto work = [this] {
    Kelvo::Platform::EventLoop::renewAfterFork();
    server.reset();
    const std::string ownName = uniqueName();
    const Tovik::Server own(
        ownName, [](Tovik::Connection&, const Tovik::Message&) {}, admitAll);
    return servesUnder(ownName);
  };
  EXPECT_TRUE(inChild(work, ::_Fork));
  EXPECT_TRUE(servesUnder(name));
}

TEST_F(Server, AcceptsAtOnceAfterAClientThatGaveUp) {
  for (const int error : {ECONNABORTED, EPROTO, EAGAIN, EINTR}) {
    const Fd client = knock();
    const Fail fail(Call::kAccept, error, 10);
    for (int i = 0; i < 11; ++i) {
      ASSERT_TRUE(turn());
    }
    EXPECT_EQ(connections(), 1) << std::strerror(error);
  }
}

TEST_F(Server, LeavesAClientOpenWhoseFlagsCannotBeWritten) {
  const Fd client = knock();
  CapturedLog log;
  Trace trace;
  {
    const Fail fail(Call::kSetFl, EPERM, 1);
    EXPECT_TRUE(turn());
  }
  const Fd abandoned(static_cast<int>(trace.of(Call::kAccept).at(0).result));
  EXPECT_THAT(log.lines(0), ElementsAre(errorLine("SETFL", EPERM)));
  EXPECT_THAT(log.lines(1), SizeIs(1));
  EXPECT_TRUE(isOpen(abandoned.get()));
  EXPECT_EQ(watchedEvents(abandoned.get()), 0U);
  EXPECT_EQ(connections(), 0);
  rawSend(client.get(), kNews);
  turnUntilIdle();
  server.reset();
  EXPECT_TRUE(isOpen(abandoned.get()));
  EXPECT_THAT(handled, IsEmpty());
  EXPECT_EQ(rawReceiveNow(client.get()), "<nothing>");
}

TEST_F(Server, ClosesAClientThatCannotBeWatched) {
  const Fd client = knock();
  const auto before = openDescriptors();
  {
    const Fail fail(Call::kEpollCtl, ENOSPC, 1);
    EXPECT_THROW(turn(), Kelvo::Exception);
  }
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(connections(), 0);
  EXPECT_EQ(rawReceive(client.get()), "<end>");
  const Fd next = join();
  EXPECT_EQ(connections(), 1);
}

// --- admission ---

/// Connects in a process of its own, under other ids if it may take them, and ends when told to.
pid_t knockFromAnotherProcess(const std::string& name, int report) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::geteuid() == 0 && (::setgid(4321) != 0 || ::setuid(1234) != 0)) {
      ::_exit(1);
    }
    const Fd client = rawConnect(name);
    const std::int64_t ids[] = {::getpid(), ::getuid(), ::getgid(), client.get()};
    if (::write(report, ids, sizeof ids) != sizeof ids) {
      ::_exit(1);
    }
    char byte = 0;
    ::_exit(static_cast<int>(::recv(client.get(), &byte, 1, 0)));
  }
  return child;
}

TEST_F(Server, TellsAnotherProcessesIdsApart) {
  std::vector<std::int64_t> judged;
  validator = [&](int pid, unsigned uid, unsigned gid) {
    judged = {pid, uid, gid};
    return false;
  };
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  const Fd reader(pipeFds[0]);
  const Fd writer(pipeFds[1]);
  const pid_t child = knockFromAnotherProcess(name, writer.get());
  Trace trace;
  ASSERT_TRUE(turnUntil([&] { return !judged.empty(); }));
  EXPECT_EQ(trace.of(Call::kGetsockopt).at(0).size, 12U);
  std::int64_t ids[4] = {};
  ASSERT_EQ(::read(reader.get(), ids, sizeof ids), static_cast<ssize_t>(sizeof ids));
  EXPECT_THAT(judged, ElementsAre(ids[0], ids[1], ids[2]));
  EXPECT_EQ(ids[0], child);
  EXPECT_GE(ids[3], 0);
  EXPECT_TRUE(endsWell(child)) << "it saw the end of its connection";
}

TEST_F(Server, DecidesTheSameWithoutTheLog) {
  bool admits = true;
  validator = [&](int, unsigned, unsigned) { return admits; };
  std::vector<Fd> welcome;
  for (const unsigned levels : {0U, 0xFU & ~2U}) {
    CapturedLog log(levels);
    welcome.push_back(join());
    admits = false;
    const Fd unwelcome = knock();
    EXPECT_TRUE(turn());
    EXPECT_EQ(connections(), static_cast<long>(welcome.size()));
    EXPECT_EQ(rawReceive(unwelcome.get()), "<end>");
    EXPECT_EQ(rawReceiveNow(welcome.back().get()), "<nothing>");
    EXPECT_THAT(log.lines(), IsEmpty());
    admits = true;
  }
  const CapturedLog log(0);
  const Fd unreadable = knock();
  const Fail acceptFails(Call::kAccept, ECONNABORTED, 1);
  EXPECT_TRUE(turn());
  const Fail flagsFail(Call::kGetFl, EBADF, 1);
  EXPECT_TRUE(turn());
  EXPECT_EQ(acceptFails.hits() + flagsFail.hits(), 2);
  EXPECT_EQ(rawReceive(unreadable.get()), "<end>");
}

TEST_F(Server, JudgesNoDescriptorThatIsNoSocket) {
  int asked = 0;
  validator = [&](int, unsigned, unsigned) { return ++asked > 0; };
  const Fd file(::open("/dev/null", O_RDWR | O_CLOEXEC));
  CapturedLog log;
  EXPECT_FALSE(server->validateConnection(file.get()));
  EXPECT_FALSE(server->validateConnection(-1));
  EXPECT_EQ(asked, 0);
  const std::string start = "Server::validateConnection( ";
  EXPECT_THAT(log.lines(),
              ElementsAre(line(0, "validateConnection", start + std::to_string(file.get())) +
                              ") => " + std::strerror(ENOTSOCK),
                          line(0, "validateConnection", start + "-1) => ") + std::strerror(EBADF)));
  EXPECT_TRUE(isOpen(file.get()));
}

TEST_F(Server, AnswersForItsValidatorAndLeavesTheDescriptorAlone) {
  const auto [one, two] = rawPair();
  EXPECT_TRUE(server->validateConnection(one.get()));
  validator = [](int, unsigned, unsigned) { return false; };
  EXPECT_FALSE(server->validateConnection(one.get()));
  EXPECT_TRUE(isOpen(one.get()));
}

TEST_F(Server, LetsItsValidatorsExceptionThroughAndLeavesTheClientOpen) {
  const auto expectFailure = [this](const std::string& at, const auto& thrown) {
    const Fd client = rawConnect(at);
    CapturedLog log;
    Trace trace;
    EXPECT_THROW(turn(), std::decay_t<decltype(thrown)>);
    EXPECT_EQ(trace.count(Call::kGetsockopt), 1);
    const Fd left(static_cast<int>(trace.of(Call::kAccept).at(0).result));
    EXPECT_TRUE(isOpen(left.get()));
    EXPECT_EQ(trace.count(Call::kClose), 0);
    EXPECT_EQ(watchedEvents(left.get()), 0U);
    EXPECT_EQ(connections(), 0);
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(rawReceiveNow(client.get()), "<nothing>");
  };
  validator = [](int, unsigned, unsigned) -> bool { throw std::range_error("mine"); };
  expectFailure(name, std::range_error("mine"));
  const std::string another = uniqueName();
  const Tovik::Server withoutValidator(another, nullptr, nullptr);
  expectFailure(another, std::bad_function_call());
  validator = admitAll;
  const Fd next = join();
  EXPECT_EQ(connections(), 1);
}

// --- the dead ---

TEST_F(Server, KeepsADeadConnectionUntilTheNextClientComes) {
  Fd client = join();
  client.reset();
  EXPECT_TRUE(turn());
  turnUntilIdle();
  EXPECT_EQ(connections(), 1);
  long whenJudged = -1;
  validator = [&](int, unsigned, unsigned) {
    whenJudged = connections();
    return true;
  };
  const Fd next = join();
  EXPECT_EQ(whenJudged, 0);
  EXPECT_EQ(connections(), 1);
}

/// A sender that attaches another socket while it ends, as an override may.
class Reattaching : public Tovik::AsyncSender {
 public:
  void readFdEvent(int /*fd*/) override {}

  void terminateConnection() override {
    AsyncSender::terminateConnection();
    if (other_.get() >= 0) {
      setFd(other_.release());
    }
  }

 private:
  Fd other_ = rawPair().first;
};

/// A sender that lets go of its socket without ending, as a subclass may.
class Forgetful : public Tovik::AsyncSender {
 public:
  ~Forgetful() override { fdControl_.reset(); }
  void readFdEvent(int /*fd*/) override {}
};

TEST_F(Server, FreesTheDeadBesideASenderThatAttachesWhileItEnds) {
  Reattaching other;
  other.setFd(rawPair().first.release());
  join().reset();
  EXPECT_TRUE(turn());
  server->freeDeadConnections();
  EXPECT_EQ(connections(), 0);
}

TEST_F(Server, FreesTheDeadAfterASenderThatLetGoOfItsSocket) {
  {
    const Fd socket = rawPair().first;
    Forgetful other;
    other.setFd(socket.get());
  }
  join().reset();
  EXPECT_TRUE(turn());
  const Fd next = join();
  EXPECT_EQ(connections(), 1);
}

// --- a handler that turns the loop, frees or destroys ---

TEST_F(Server, KeepsAConnectionWhoseHandlerTurnsTheLoopUntilTheHandlerReturns) {
  Fd client = join();
  long insideTheHandler = 0;
  onMessage = [&](Tovik::Connection& from, const Tovik::Message& /*msg*/) {
    client.reset();
    while (from.isAttached()) {
      turn();
    }
    const Fd next = join();
    insideTheHandler = connections();
    from.acknowledge(0);
  };
  rawSend(client.get(), kNews);
  EXPECT_TRUE(turn());
  EXPECT_EQ(insideTheHandler, 2);
  server->freeDeadConnections();
  turnUntilIdle();
  server->freeDeadConnections();
  EXPECT_EQ(connections(), 0);
}

TEST_F(Server, MayBeToldToFreeTheDeadByAHandler) {
  const Fd client = join();
  onMessage = [&](Tovik::Connection& from, const Tovik::Message& /*msg*/) {
    from.terminateConnection();
    server->freeDeadConnections();
    EXPECT_EQ(connections(), 1);
    from.acknowledge(0);
  };
  rawSend(client.get(), kNews);
  EXPECT_TRUE(turn());
  EXPECT_EQ(connections(), 0);
}

TEST_F(Server, MayBeDestroyedByOneOfItsOwnHandlers) {
  const Fd client = join();
  const Fd other = join();
  onMessage = [&](Tovik::Connection& from, const Tovik::Message& /*msg*/) {
    server.reset();
    EXPECT_EQ(rawReceive(other.get()), "<end>");
    from.acknowledge(5);
  };
  rawSend(client.get(), kNews);
  EXPECT_TRUE(turn());
  EXPECT_EQ(rawReceive(client.get()), R"({"type":"reply","status":5})");
  EXPECT_EQ(rawReceive(client.get()), "<end>");
  EXPECT_EQ(copies.use_count(), 1);
  EXPECT_EQ(rawConnect(name).get(), -1);
}

// --- broadcasting ---

TEST_F(Server, NotifiesNothingWhoseParsingFailed) {
  const Fd client = joinSubscribed();
  server->notifyClients(parsed("{"));
  EXPECT_EQ(rawReceiveNow(client.get()), "<nothing>");
}

TEST_F(Server, HandsANotificationToDeadSubscribersUntilTheyAreFreed) {
  joinSubscribed().reset();
  turnUntilIdle();
  CapturedLog log;
  server->notifyClients(parsed(kNews));
  EXPECT_THAT(log.lines(),
              ElementsAre(std::string("3 Api/Json/Async asyncSendMsg: AsyncSender::asyncSendMSg() "
                                      "-> ") +
                          kNews));
  server->freeDeadConnections();
  log.clear();
  server->notifyClients(parsed(kNews));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Server, NotifiesTheOthersWhenSomeHaveGoneAndFreesTheDeadOnRequest) {
  std::vector<Fd> clients;
  for (int i = 0; i < 6; ++i) {
    clients.push_back(joinSubscribed());
  }
  server->freeDeadConnections();
  EXPECT_EQ(connections(), 6);
  for (const std::size_t i : {0U, 2U, 3U, 5U}) {
    clients[i].reset();
  }
  server->notifyClients(parsed(kNews));
  turnUntilIdle();
  EXPECT_EQ(connections(), 6);
  server->freeDeadConnections();
  EXPECT_EQ(connections(), 2);
  server->notifyClients(parsed(kNews));
  EXPECT_THAT(receivedBy(clients[1].get()), ElementsAre(kNews, kNews));
  EXPECT_THAT(receivedBy(clients[4].get()), ElementsAre(kNews, kNews));
}

// --- the end of a server ---

TEST_F(Server, FreesItsNameForTheNextServerAndEndsClientsThatStillWait) {
  const Fd client = join();
  const Fd waiting = knock();
  server.reset();
  EXPECT_THAT(rawReceive(waiting.get()), ::testing::AnyOf("<end>", "<error>"));
  EXPECT_EQ(copies.use_count(), 1);
  EXPECT_LT(knock().get(), 0);
  EXPECT_EQ(errno, ECONNREFUSED);
  start();
  const Fd next = join();
  EXPECT_EQ(connections(), 1);
}

/// A server beside a handler that destroys it.
class DoomedServer : public Server {
 protected:
  DoomedServer() {
    destroyer.onRead = [this](int fd) {
      EXPECT_EQ(rawReceiveNow(fd), "now");
      server.reset();
    };
  }

  std::pair<Fd, Fd> ends = rawPair();
  Watcher destroyer{ends.first.get()};
};

TEST_F(DoomedServer, MayBeDestroyedByAnotherCallbackBeforeItsOwnEvents) {
  const Fd talking = join();
  turnUntilIdle();  // so that the kernel reports in the order in which it all happens now
  rawSend(ends.second.get(), "now");
  rawSend(talking.get(), kNews);
  const Fd waiting = knock();
  Trace trace;
  EXPECT_TRUE(turn());
  EXPECT_EQ(server, nullptr);
  EXPECT_EQ(trace.count(Call::kAccept), 0);
  EXPECT_THAT(handled, IsEmpty());
  EXPECT_FALSE(turn());
}

TEST_F(DoomedServer, MayBeDestroyedByAnotherCallbackAfterItsOwnEvents) {
  const Fd talking = join();
  turnUntilIdle();
  rawSend(talking.get(), kNews);
  const Fd waiting = knock();
  rawSend(ends.second.get(), "now");
  EXPECT_TRUE(turn());
  EXPECT_EQ(server, nullptr);
  EXPECT_THAT(handled, ElementsAre(kNews));
  EXPECT_FALSE(turn());
  EXPECT_EQ(copies.use_count(), 1);
}

// --- memory that runs out ---

/// Lets the `nth` allocation of `action`, from 0, fail; false if it makes no more than that.
template <class Action>
bool withoutMemoryForThe(std::size_t nth, Action action) {
  const int before = Faults::failedAllocations();
  try {
    const Faults::NoMemory exhausted(static_cast<int>(nth), 1);
    action();
  } catch (const std::bad_alloc&) {
  }
  return Faults::failedAllocations() > before;
}

int failedCloses(const Trace& trace) {
  int failed = 0;
  for (const auto& seen : trace.of(Call::kClose)) {
    failed += seen.result == 0 ? 0 : 1;
  }
  return failed;
}

TEST_F(Server, ClosesAClientOnceOrKeepsItWhereverMemoryRunsOut) {
  CapturedLog log(1U << 1);
  std::vector<Fd> clients;
  for (bool failed = true; failed;) {
    log.clear();
    clients.push_back(knock());
    const auto before = openDescriptors().size();
    const long connected = connections();
    const Trace trace;
    failed = withoutMemoryForThe(clients.size() - 1, [] { turn(); });
    const auto accepted = trace.of(Call::kAccept);
    const bool reported =
        !accepted.empty() && log.has(admittedLine(static_cast<int>(accepted.at(0).result)));
    turnUntilIdle();
    EXPECT_EQ(failedCloses(trace), 0) << "allocation " << clients.size();
    const auto made = static_cast<std::size_t>(connections() - connected);
    EXPECT_EQ(openDescriptors().size(), before + made) << "allocation " << clients.size();
    EXPECT_EQ(rawReceiveNow(clients.back().get()), made == 0 ? "<end>" : "<nothing>");
    EXPECT_TRUE(made == 1 || !reported) << "allocation " << clients.size();
  }
}

TEST_F(Server, IsMadeOrLeavesNothingBehindWhereverMemoryRunsOut) {
  const CapturedLog log;
  server.reset();
  const auto before = openDescriptors().size();
  for (std::size_t nth = 0; withoutMemoryForThe(nth, [this] { start(); }); ++nth) {
    EXPECT_EQ(openDescriptors().size(), before + (server ? 1U : 0U)) << "allocation " << nth;
    server.reset();
  }
}

}  // namespace
