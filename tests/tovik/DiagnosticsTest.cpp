// Every diagnostic of the library, provoked once and compared word for word; and what the channel's
// mask makes of them.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <ostream>
#include <utility>

#include "Api/Json/Client.h"
#include "Api/Json/Server.h"
#include "tests/tovik/Peers.h"

using Faults::Call;
using Faults::Fail;
using Faults::Trace;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

// Two functions of the base library, taken over by this program as the system calls are: what the
// library asks the debug channel for is counted.

namespace {

int streamsMade = 0;
std::vector<std::pair<std::string, bool>> handlersRequested;

}  // namespace

// The constructor that makes whole objects, under its name in the library.
constexpr auto kStreamConstructor = "_ZN5Kelvo8Platform11DebugStreamC1Ev";
extern "C" void makeDebugStream(void* stream) asm("_ZN5Kelvo8Platform11DebugStreamC1Ev");

extern "C" void makeDebugStream(void* stream) {
  static const auto real = reinterpret_cast<void (*)(void*)>(dlsym(RTLD_NEXT, kStreamConstructor));
  ++streamsMade;
  real(stream);
}

namespace Kelvo::Platform {

RawDebugHandler* _getRawDebugHandler(const String& channel, bool errorsFromStart) {
  static const auto real = reinterpret_cast<RawDebugHandler* (*)(const String&, bool)>(
      dlsym(RTLD_NEXT, "_ZN5Kelvo8Platform19_getRawDebugHandlerERKNS_6StringEb"));
  handlersRequested.emplace_back(std::string_view(channel), errorsFromStart);
  return real(channel, errorsFromStart);
}

}  // namespace Kelvo::Platform

namespace {

void ignore(Tovik::Connection& /*from*/, const Tovik::Message& /*msg*/) {}

/// The system's text for an error, without the function whose calls are counted.
std::string textOf(int error) {
  static const locale_t plain = newlocale(LC_ALL_MASK, "C", nullptr);
  return strerror_l(error, plain);
}

// What provokes a diagnostic. Each returns the text to expect.

class Sender : public Tovik::AsyncSender {
 public:
  Sender() {
    auto [ours, theirs] = nonBlockingPair();
    fd = ours.get();
    setFd(ours.release());
    peer = std::move(theirs);
  }
  void readFdEvent(int /*fd*/) override {}

  int fd;
  Fd peer;
};

std::string failedRead() {
  const Sender sender;
  const Fail fail(Call::kRead, ECONNRESET, 1);
  Kelvo::String out;
  sender.asyncRead(out);
  return "AsyncSender::asynRead(): read failed -> " + textOf(ECONNRESET);
}

std::string flush() {
  Sender sender;
  sender.flushQueue();
  return "AsyncSender::flushQueue(), queue size = 0";
}

std::string failedWrite() {
  Sender sender;
  const Fail fail(Call::kWrite, ENOBUFS, 1);
  sender.asyncSendMsg(parsed("{}"));
  return "AsyncSender::flushQueue(): write error " + textOf(ENOBUFS);
}

std::string send() {
  Sender sender;
  sender.asyncSendMsg(parsed(R"({ "a" : "ä" })"));
  return R"(AsyncSender::asyncSendMSg() -> {"a":"ä"})";
}

std::string termination() {
  Sender sender;
  sender.terminateConnection();
  return "AsyncSender::terminateConnection(): fd = " + std::to_string(sender.fd);
}

/// The event loop's client, connected to a raw server.
struct LoopClient {
  LoopClient()
      : listener(rawListen(name)),
        client(
            name, [](auto&, auto&) {}, [](auto&) {}, 3600) {}

  void receive(std::string_view record) {
    client.timeout();
    const Fd server(::accept(listener.get(), nullptr, nullptr));
    rawSend(server.get(), record);
    client.readFdEvent(0);
  }

  const std::string name = uniqueName();
  const Fd listener;
  Tovik::AsyncClient client;
};

std::string clientsUnreadableFlags() {
  LoopClient loopClient;
  const Fail fail(Call::kGetFl, EBADF, 1);
  const Fail failToo(Call::kClose, EIO, 1);
  loopClient.client.timeout();
  return "createSocket: Failed to GETFL -> " + textOf(EBADF);
}

std::string clientsUnwritableFlags() {
  LoopClient loopClient;
  const Fail fail(Call::kSetFl, EPERM, 1);
  loopClient.client.timeout();
  return "createSocket: Failed to SETFL -> " + textOf(EPERM);
}

std::string tick() {
  LoopClient loopClient;
  loopClient.client.timeout();
  return "AsyncClient::timeout()";
}

std::string clientsText() {
  LoopClient().receive("[1, 2]");
  return "AsyncClient::readFdEvent(): msg = '[1, 2]'";
}

std::string clientsInvalidText() {
  LoopClient().receive("no");
  return "AsyncClient::readFdEvent(): Invalid JSON message";
}

/// The blocking client, answered by a raw server.
struct BlockingClient {
  void answer(std::string_view record) const {
    const Fd server(::accept(listener.get(), nullptr, nullptr));
    rawSend(server.get(), record);
    EXPECT_EQ(client.waitAck(), -1);
  }

  const std::string name = uniqueName();
  const Fd listener = rawListen(name);
  const Tovik::Client client{name};
};

std::string answerThatIsNoJson() {
  BlockingClient().answer("no");
  return "Client::waitAck(): message isn't valid JSON";
}

std::string answerThatIsNoReply() {
  BlockingClient().answer("{}");
  return "Client::waitAck(): message isn't valid ack";
}

std::string answerThatIsNegative() {
  BlockingClient().answer(R"({"type":"reply","status":4294967294})");
  return "Client::waitAck(): invalid status -2";
}

std::string clientsFailedWrite() {
  const BlockingClient blocking;
  const Fail fail(Call::kWrite, EPIPE, 1);
  EXPECT_EQ(blocking.client.sendMsg(parsed("{}"), false), -1);
  return "Client::sendMsg(): Failed to write() " + textOf(EPIPE);
}

/// A connection without a server, which gets one record.
struct Receiver {
  explicit Receiver(std::string_view record) {
    auto [ours, theirs] = nonBlockingPair();
    fd = ours.get();
    rawSend(theirs.get(), record);
    Tovik::Connection(ours.release(), ignore).readFdEvent(fd);
  }

  int fd;
};

std::string connectionsEvent() {
  return "Connection::readFdEvent(): fd = " + std::to_string(Receiver("{}").fd);
}

std::string connectionsText() {
  const Receiver receiver("{ \"n\" : 1 }");
  return "msg = '{ \"n\" : 1 }'";
}

std::string connectionsInvalidText() {
  const Receiver receiver("no");
  return "Connection::readFdEvent(): Invalid JSON message";
}

std::string subscription() {
  const Receiver receiver(kSubscribe);
  return "Connection::readFdEvent(): Client (fd = " + std::to_string(receiver.fd) +
         ") notification: 0 -> 1";
}

/// A server and the descriptors it makes.
class Listener {
 public:
  explicit Listener(Tovik::Server::Validator validator = admitAll)
      : server_(name_, ignore, std::move(validator)) {}

  /// Accepts a client; returns the server's end of it, closed or not.
  int accept() {
    const Fd client = rawConnect(name_);
    Trace trace;
    server_.readFdEvent(listening());
    return static_cast<int>(trace.of(Call::kAccept).at(0).result);
  }

  int listening() const { return listens_.of(Call::kListen).at(0).fd; }

 private:
  Trace listens_;
  const std::string name_ = uniqueName();
  Tovik::Server server_;
};

std::string listening() {
  return "Server(): socket fd = " + std::to_string(Listener().listening());
}

std::string admission() {
  return "Server::readFdEvent(): New connection, fd = " + std::to_string(Listener().accept());
}

std::string judged(int fd, const std::string& word) {
  return "Server::validateConnection( " + std::to_string(fd) +
         " ): pid = " + std::to_string(::getpid()) + ", uid = " + std::to_string(::getuid()) +
         ", gid = " + std::to_string(::getgid()) + " => " + word;
}

std::string acceptance() {
  return judged(Listener().accept(), "accepted");
}

std::string denial() {
  return judged(Listener([](int, unsigned, unsigned) { return false; }).accept(), "denied");
}

std::string unreadableCredentials() {
  const Fail fail(Call::kGetsockopt, ENOPROTOOPT, 1);
  return "Server::validateConnection( " + std::to_string(Listener().accept()) + ") => " +
         textOf(ENOPROTOOPT);
}

std::string failedAccept() {
  const Fail fail(Call::kAccept, EMFILE, 1);
  Listener().accept();
  return "Server::readFdEvent: Failed to accept() -> " + textOf(EMFILE);
}

std::string serversUnreadableFlags() {
  const Fail fail(Call::kGetFl, EBADF, 1);
  const Fail failToo(Call::kClose, EIO, 1);
  Listener().accept();
  return "Server::readFdEvent: Failed to GETFL -> " + textOf(EBADF);
}

std::string serversUnwritableFlags() {
  const Fail fail(Call::kSetFl, EPERM, 1);
  const Fd abandoned(Listener().accept());
  return "Server::readFdEvent: Failed to SETFL -> " + textOf(EPERM);
}

struct Row {
  const char* name;
  int level;
  const char* place;  // source path and function
  std::string (*provoke)();

  std::string line(const std::string& text) const {
    return std::to_string(level) + " " + place + ": " + text;
  }
};

std::ostream& operator<<(std::ostream& out, const Row& row) {
  return out << row.name;
}

const Row kRows[] = {
    {"FailedRead", 0, "Api/Json/Async asyncRead", failedRead},
    {"Flush", 2, "Api/Json/Async flushQueue", flush},
    {"FailedWrite", 0, "Api/Json/Async flushQueue", failedWrite},
    {"Send", 3, "Api/Json/Async asyncSendMsg", send},
    {"Termination", 1, "Api/Json/Async terminateConnection", termination},
    {"ClientsUnreadableFlags", 0, "Api/Json/Client createSocket", clientsUnreadableFlags},
    {"ClientsUnwritableFlags", 0, "Api/Json/Client createSocket", clientsUnwritableFlags},
    {"AnswerThatIsNoJson", 0, "Api/Json/Client waitAck", answerThatIsNoJson},
    {"AnswerThatIsNoReply", 0, "Api/Json/Client waitAck", answerThatIsNoReply},
    {"AnswerThatIsNegative", 0, "Api/Json/Client waitAck", answerThatIsNegative},
    {"ClientsFailedWrite", 0, "Api/Json/Client sendMsg", clientsFailedWrite},
    {"ClientsText", 3, "Api/Json/Client readFdEvent", clientsText},
    {"ClientsInvalidText", 0, "Api/Json/Client readFdEvent", clientsInvalidText},
    {"Tick", 3, "Api/Json/Client timeout", tick},
    {"ConnectionsEvent", 2, "Api/Json/Connection readFdEvent", connectionsEvent},
    {"ConnectionsText", 3, "Api/Json/Connection readFdEvent", connectionsText},
    {"ConnectionsInvalidText", 0, "Api/Json/Connection readFdEvent", connectionsInvalidText},
    {"Subscription", 1, "Api/Json/Connection handleNotifMsg", subscription},
    {"Listening", 0, "Api/Json/Server Server", listening},
    {"UnreadableCredentials", 0, "Api/Json/Server validateConnection", unreadableCredentials},
    {"Acceptance", 1, "Api/Json/Server validateConnection", acceptance},
    {"Denial", 1, "Api/Json/Server validateConnection", denial},
    {"ServersUnreadableFlags", 0, "Api/Json/Server readFdEvent", serversUnreadableFlags},
    {"ServersUnwritableFlags", 0, "Api/Json/Server readFdEvent", serversUnwritableFlags},
    {"Admission", 1, "Api/Json/Server readFdEvent", admission},
    {"FailedAccept", 0, "Api/Json/Server readFdEvent", failedAccept},
};

/// The levels of the records that were collected.
std::vector<int> levels(const CapturedLog& log) {
  std::vector<int> found;
  for (const auto& record : log.records()) {
    found.push_back(record.level);
  }
  return found;
}

class Diagnostic : public ::testing::TestWithParam<Row> {};

TEST_P(Diagnostic, AppearsOnceWithItsLevelPlaceAndText) {
  CapturedLog log;
  const int before = streamsMade;
  const std::string line = GetParam().line(GetParam().provoke());
  EXPECT_THAT(log.lines(), Contains(line).Times(1));
  EXPECT_EQ(static_cast<std::size_t>(streamsMade - before), log.records().size());
  for (const auto& record : log.records()) {
    EXPECT_EQ(record.channel, "Tovik");
    EXPECT_GT(record.line, 0);
  }
}

TEST_P(Diagnostic, AppearsWithOnlyItsLevelOn) {
  CapturedLog log(1U << GetParam().level);
  const std::string line = GetParam().line(GetParam().provoke());
  EXPECT_THAT(log.lines(), Contains(line).Times(1));
  EXPECT_THAT(levels(log), Each(GetParam().level));
}

TEST_P(Diagnostic, DoesNotAppearWithItsLevelOff) {
  CapturedLog log(0xFU & ~(1U << GetParam().level));
  Trace trace;
  GetParam().provoke();
  EXPECT_THAT(levels(log), Not(Contains(GetParam().level)));
  if (GetParam().level == 0) {
    EXPECT_EQ(trace.count(Call::kStrerror), 0);
  }
}

TEST_P(Diagnostic, FormatsNothingWithEveryLevelOff) {
  CapturedLog log(0);
  const int before = streamsMade;
  Trace trace;
  GetParam().provoke();
  EXPECT_EQ(streamsMade, before);
  EXPECT_EQ(trace.count(Call::kStrerror), 0);
  EXPECT_THAT(log.records(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Row, Diagnostic, ::testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

// --- the channel as a whole ---

void provokeEverything() {
  for (const Row& row : kRows) {
    row.provoke();
  }
}

/// Every server tells its descriptor, also those that serve other rows.
std::vector<std::string> withoutListening(std::vector<std::string> lines) {
  const auto tells = [](const std::string& line) {
    return line.rfind("0 Api/Json/Server Server: ", 0) == 0;
  };
  lines.erase(std::remove_if(lines.begin(), lines.end(), tells), lines.end());
  return lines;
}

TEST(Diagnostics, AreExactlyTheErrorsWhileOnlyErrorsAreOn) {
  std::vector<std::string> expected;
  CapturedLog log(1);
  for (const Row& row : kRows) {
    const std::string line = row.line(row.provoke());
    if (row.level == 0) {
      expected.push_back(line);
    }
  }
  EXPECT_EQ(withoutListening(log.lines()), withoutListening(expected));
}

TEST(Diagnostics, FollowTheMaskFromOneStatementToTheNext) {
  Sender sender;
  std::vector<int> seen;
  const Fail fail(Call::kWrite, ENOBUFS);
  const LogSink sink(8, [&](const auto& record) {  // then 4 from the first record on, then none
    seen.push_back(record.level);
    Kelvo::Platform::setDebugLevels("Tovik", record.level == 3 ? 4 : 0);
  });
  sender.asyncSendMsg(parsed("{}"));
  EXPECT_THAT(seen, ElementsAre(3, 2));
}

TEST(Diagnostics, GoNowhereElse) {
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  {
    CapturedLog log;
    provokeEverything();
    CapturedLog quiet(0);
    provokeEverything();
  }
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

/// In a process of its own: how the handlers are asked for, as text.
std::string requestsOf(const std::function<void()>& work) {
  handlersRequested.clear();
  work();
  std::string text;
  for (const auto& [channel, errorsFromStart] : handlersRequested) {
    text += channel + (errorsFromStart ? " true " : " false ");
  }
  return text;
}

void reportAndExit(const std::string& text) {
  std::fputs(text.c_str(), stderr);
  std::_Exit(0);
}

TEST(DiagnosticsDeathTest, AskForTheirHandlerOncePerSourceFile) {
  EXPECT_EXIT(reportAndExit("[" + requestsOf([] {
                              provokeEverything();
                              provokeEverything();
                            }) +
                            "]"),
              ::testing::ExitedWithCode(0),
              "^\\[Tovik false Tovik false Tovik false Tovik false \\]$");
}

TEST(DiagnosticsDeathTest, AskForTheirHandlerAtTheFirstStatementOnly) {
  EXPECT_EXIT(reportAndExit("[" + requestsOf([] { Tovik::Message::toStr(parsed("{}"), false); }) +
                            "][" + requestsOf([] { failedRead(); }) + "]"),
              ::testing::ExitedWithCode(0), "^\\[\\]\\[Tovik false \\]$");
}

}  // namespace
