// The blocking client against a server of plain sockets.

#include "Api/Json/Client.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "tests/tovik/ClientSupport.h"
#include "tests/tovik/Peers.h"

using Faults::Call;
using Faults::Fail;
using Faults::Trace;
using Lines = std::vector<std::string>;

namespace {

constexpr auto kReply3 = R"({"type":"reply","status":3})";
constexpr auto kMessage = R"({"command":"go"})";

const std::string kLog = "0 Api/Json/Client ";

/// The text of the SocketException that `action` throws.
template <class Action>
std::string thrownBy(Action action) {
  try {
    action();
  } catch (const Tovik::SocketException& thrown) {
    EXPECT_EQ(typeid(thrown), typeid(Tovik::SocketException));
    return thrown.what();
  }
  return "<nothing>";
}

std::string failureToConnect(const Kelvo::String& name) {
  return thrownBy([&] { Tovik::Client client(name); });
}

}  // namespace

/// A connected client, its descriptor, and the server's end.
class Client : public testing::Test {
 protected:
  Client() {
    const Trace trace;
    client_.emplace(server_.name());
    fd_ = static_cast<int>(trace.of(Call::kSocket).at(0).result);
    peer_ = server_.accept();
  }

  int send(bool waitForAck) { return client_->sendMsg(parsed(kMessage), waitForAck); }
  std::string failureToRead() {
    return thrownBy([this] { client_->waitForMsg(); });
  }

  RawServer server_;
  std::optional<Tovik::Client> client_;
  int fd_ = -1;
  Fd peer_;
  CapturedLog log_;
};

/// Clients that fail to come into being.
class UnconnectedClient : public testing::Test {
 protected:
  ~UnconnectedClient() override {
    EXPECT_EQ(log_.lines(), Lines()) << "a failure to connect is the caller's to report";
    EXPECT_EQ(openDescriptors(), before_);
  }

  CapturedLog log_;
  const std::set<int> before_ = openDescriptors();
};

// --- construction ---

TEST_F(UnconnectedClient, ThrowsIfNoServerListens) {
  EXPECT_EQ(failureToConnect(uniqueName()), "Connection refused");
}

TEST_F(UnconnectedClient, ThrowsIfItGetsNoSocket) {
  const std::string text = std::strerror(EMFILE);
  const Trace trace;
  const Fail fail(Call::kSocket, EMFILE);
  EXPECT_EQ(failureToConnect(uniqueName()), text);
  EXPECT_EQ(trace.calls().size(), 2U) << "nothing but the call and the look at its error";
}

TEST_F(UnconnectedClient, ThrowsWhateverConnectFailedWith) {
  const RawServer server;
  for (const int error : {EACCES, EAGAIN, EINTR, EPROTOTYPE}) {
    const Fail fail(Call::kConnect, error);
    EXPECT_EQ(failureToConnect(server.name()), std::strerror(error));
  }
}

TEST_F(Client, HasASocketWithTheFlagsThatTheSystemGave) {
  EXPECT_EQ(::fcntl(fd_, F_GETFL), O_RDWR);
  EXPECT_EQ(::fcntl(fd_, F_GETFD), 0) << "not close-on-exec";
}

TEST_F(Client, LogsNothingAboutItsConnection) {
  { const Tovik::Client another(server_.name()); }
  client_->closeSocket();
  EXPECT_EQ(log_.lines(), Lines());
}

TEST_F(Client, IsPolymorphicByItsDestructor) {
  EXPECT_TRUE(std::has_virtual_destructor_v<Tovik::Client>);
  EXPECT_FALSE(std::is_copy_constructible_v<Tovik::Client>);
}

TEST(ClientOfABusyServer, WaitsInItsConstructorForARoomInTheBacklog) {
  const std::string name = uniqueName();
  const Fd listener = rawListen(name, 110, 0);
  const Fd first = rawConnect(name);  // fills the backlog
  Fd accepted;
  const OnceThisThreadSleeps accepting(
      [&] { accepted = Fd(::accept(listener.get(), nullptr, nullptr)); });
  EXPECT_EQ(failureToConnect(name), "<nothing>");
}

TEST(ClientOnDescriptorZero, WorksAsOnAnyOther) {
  RawServer server;
  const FreeDescriptorZero zero;
  std::optional<Tovik::Client> client(server.name());
  ASSERT_GE(::fcntl(0, F_GETFL), 0);
  const Fd peer = server.accept();
  EXPECT_EQ(client->sendMsg(parsed("{}"), false), 0);
  EXPECT_EQ(rawReceive(peer.get()), "{}");
  client->closeSocket();
  EXPECT_EQ(rawReceive(peer.get()), "<end>");
  client.emplace(server.name());
  ASSERT_GE(::fcntl(0, F_GETFL), 0);
  const Fd another = server.accept();
  client.reset();
  EXPECT_EQ(rawReceive(another.get()), "<end>");
}

// --- sending ---

TEST_F(Client, WritesEachMessageInOneCallOfItsExactSize) {
  const Trace trace;
  EXPECT_EQ(client_->sendMsg(parsed(R"({ "a" : [ 1 ] })"), false), 0);
  ASSERT_EQ(trace.count(Call::kWrite), 1);
  const auto write = trace.of(Call::kWrite).at(0);
  EXPECT_EQ(write.fd, fd_);
  EXPECT_EQ(write.bytes, R"({"a":[1]})");
  EXPECT_EQ(write.size, 9U);
  EXPECT_EQ(rawReceive(peer_.get()), R"({"a":[1]})") << "one record, no terminator";
  EXPECT_EQ(rawReceiveNow(peer_.get()), "<nothing>");
  EXPECT_EQ(log_.lines(), Lines());
}

TEST_F(Client, DoesNotReadUnlessToldToWait) {
  const Trace trace;
  rawSend(peer_.get(), kReply3);
  EXPECT_EQ(send(false), 0);
  EXPECT_EQ(trace.count(Call::kRead), 0);
  EXPECT_EQ(client_->waitAck(), 3) << "the reply is left for a later wait";
}

TEST_F(Client, ReturnsTheStatusOfTheReplyThatItWaitsFor) {
  rawSend(peer_.get(), kReply3);
  EXPECT_EQ(send(true), 3);
  EXPECT_EQ(rawReceive(peer_.get()), kMessage);
  EXPECT_EQ(log_.lines(), Lines());
}

TEST_F(Client, TakesTheNextRecordForTheAnswerWhateverItIs) {
  rawSend(peer_.get(), R"({"notification":"news"})");
  rawSend(peer_.get(), kReply3);
  EXPECT_EQ(send(true), -1);
  EXPECT_EQ(log_.lines(), (Lines{kLog + "waitAck: Client::waitAck(): message isn't valid ack"}));
  EXPECT_EQ(client_->waitAck(), 3) << "the reply is what the next call reads";
}

TEST_F(Client, RefusesAMessageWhoseParsingFailed) {
  const Trace trace;
  EXPECT_EQ(client_->sendMsg(parsed("{"), false), -1);
  EXPECT_EQ(client_->sendMsg(parsed("{"), true), -1);
  EXPECT_TRUE(trace.calls().empty());
  EXPECT_EQ(log_.lines(), Lines());
}

TEST_F(Client, FailsToSendWhatNoRecordOfTheSocketCanHold) {
  EXPECT_EQ(client_->sendMsg(parsed(messageOfSize(1000000)), false), -1);
  EXPECT_EQ(log_.lines(), (Lines{kLog + "sendMsg: Client::sendMsg(): Failed to write() " +
                                 std::strerror(EMSGSIZE)}));
  EXPECT_EQ(send(false), 0) << "the connection goes on";
}

// A root that JSON cannot express has an empty text, and the kernel reports 0 bytes written.
TEST_F(Client, LooksOnlyAtTheSignOfWhatWriteReturns) {
  Tovik::Message msg;
  msg.SetDouble(std::numeric_limits<double>::quiet_NaN());
  const Trace trace;
  EXPECT_EQ(client_->sendMsg(msg, false), 0);
  EXPECT_EQ(trace.of(Call::kWrite).at(0).result, 0);
  EXPECT_EQ(log_.lines(), Lines());
}

// Linux raises SIGPIPE for streams and not for sockets of this type; whatever a system does, the
// disposition is the process's business.
TEST_F(Client, LeavesTheSignalOfABrokenPipeAsTheProcessHasIt) {
  const auto check = [this] {
    std::signal(SIGPIPE, SIG_DFL);
    peer_.reset();
    const bool failed = send(false) == -1;
    const Tovik::Client another(server_.name());
    struct sigaction action {};
    sigset_t blocked;
    ::sigaction(SIGPIPE, nullptr, &action);
    ::sigprocmask(SIG_BLOCK, nullptr, &blocked);
    std::exit(failed && action.sa_handler == SIG_DFL && !::sigismember(&blocked, SIGPIPE) ? 0 : 1);
  };
  EXPECT_EXIT(check(), testing::ExitedWithCode(0), "");
}

// --- receiving ---

TEST_F(Client, ReturnsMessagesThatOutliveIt) {
  rawSend(peer_.get(), R"({"text":"long enough to be kept in memory of its own"})");
  rawSend(peer_.get(), R"({"text":"another one that would lie in the same place"})");
  const Tovik::Message first = client_->waitForMsg();
  const Tovik::Message second = client_->waitForMsg();
  client_.reset();
  EXPECT_STREQ(first["text"].GetString(), "long enough to be kept in memory of its own");
  EXPECT_STREQ(second["text"].GetString(), "another one that would lie in the same place");
}

TEST_F(Client, ReturnsMalformedTextAsAMessageWithAParseError) {
  for (const char* text : {"{", "{} {}", "{a:1}", "[1,]", "[NaN]", "[Infinity]", "[1]//", " ",
                           "/**/[1]", "'a'", "nul", "\xef\xbb\xbf[1]", "{\"a\":1,}"}) {
    rawSend(peer_.get(), text);
    EXPECT_TRUE(client_->waitForMsg().HasParseError()) << text;
  }
  EXPECT_EQ(log_.lines(), Lines());
}

TEST_F(Client, AcceptsWhitespaceAroundTheValue) {
  rawSend(peer_.get(), " \r\n\t[1] \r\n\t");
  const auto msg = client_->waitForMsg();
  EXPECT_FALSE(msg.HasParseError());
  EXPECT_EQ(compact(msg), "[1]");
}

TEST_F(Client, TakesBytesInsideStringsAsTheyCome) {
  rawSend(peer_.get(), "\"\xff\xfe\"");
  EXPECT_EQ(compact(client_->waitForMsg()), "\"\xff\xfe\"");
}

TEST_F(Client, BlocksUntilTheServerSends) {
  const OnceThisThreadSleeps answering([this] { rawSend(peer_.get(), kReply3); });
  EXPECT_EQ(client_->waitAck(), 3);
}

TEST_F(Client, LeavesTimeLimitsToTheSocket) {
  const timeval limit{0, 20000};
  ASSERT_EQ(::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit), 0);
  const Trace trace;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(failureToRead(), std::strerror(EAGAIN));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
  EXPECT_EQ(trace.count(Call::kRead), 1);
}

TEST_F(Client, ThrowsWhateverReadFailedWith) {
  for (const int error : {ECONNRESET, EINTR, EAGAIN, EIO}) {
    const Trace trace;
    const Fail fail(Call::kRead, error, 1);
    EXPECT_EQ(failureToRead(), std::strerror(error));
    EXPECT_EQ(trace.count(Call::kRead), 1) << "not tried again";
  }
  EXPECT_EQ(log_.lines(), Lines());
}

TEST_F(Client, ThrowsIfTheServerClosesTheConnection) {
  peer_.reset();
  EXPECT_EQ(failureToRead(), "Broken pipe");
  EXPECT_EQ(thrownBy([this] { client_->waitAck(); }), "Broken pipe");
  EXPECT_EQ(log_.lines(), Lines());
}

TEST_F(Client, ThrowsIfTheServerClosesWhileItWaits) {
  const OnceThisThreadSleeps closing([this] { ::shutdown(peer_.get(), SHUT_RDWR); });
  EXPECT_EQ(failureToRead(), "Broken pipe");
}

TEST_F(Client, ThrowsOutOfSendingIfTheServerGivesNoReply) {
  ::shutdown(peer_.get(), SHUT_WR);
  EXPECT_EQ(thrownBy([this] { send(true); }), "Broken pipe");
  EXPECT_EQ(rawReceive(peer_.get()), kMessage);
}

TEST_F(Client, ThrowsIfTheServerGoesWithoutReadingItsMessage) {
  EXPECT_EQ(send(false), 0);
  peer_.reset();
  EXPECT_EQ(failureToRead(), std::strerror(ECONNRESET));
}

TEST_F(Client, TakesAnEmptyRecordForTheEnd) {
  rawSend(peer_.get(), "");
  EXPECT_EQ(failureToRead(), "Broken pipe");
}

TEST_F(Client, ReadsWhatTheServerSentBeforeItClosed) {
  rawSend(peer_.get(), kReply3);
  peer_.reset();
  EXPECT_EQ(client_->waitAck(), 3);
  EXPECT_EQ(failureToRead(), "Broken pipe");
}

// --- closing ---

TEST_F(Client, ClosesItsSocketWhenDestroyed) {
  client_.reset();
  EXPECT_EQ(rawReceive(peer_.get()), "<end>");
  EXPECT_LT(::fcntl(fd_, F_GETFD), 0);
}

TEST_F(Client, ClosesItsSocketOnce) {
  const Trace trace;
  client_->closeSocket();
  EXPECT_EQ(rawReceive(peer_.get()), "<end>");
  client_->closeSocket();
  client_.reset();
  ASSERT_EQ(trace.count(Call::kClose), 1);
  EXPECT_EQ(trace.of(Call::kClose).at(0).fd, fd_);
}

TEST_F(Client, SendsNothingOnceClosed) {
  client_->closeSocket();
  const Trace trace;
  EXPECT_EQ(send(false), -1);
  EXPECT_EQ(send(true), -1);
  EXPECT_TRUE(trace.calls().empty());
  EXPECT_EQ(log_.lines(), Lines());
}

TEST_F(Client, ThrowsOnReadingOnceClosed) {
  client_->closeSocket();
  EXPECT_EQ(failureToRead(), "Bad file descriptor");
  EXPECT_EQ(thrownBy([this] { client_->waitAck(); }), "Bad file descriptor");
  EXPECT_EQ(log_.lines(), Lines());
}

TEST_F(Client, LeaksNoDescriptorWhicheverWayItFails) {
  const auto before = openDescriptors();
  {
    Tovik::Client another(server_.name());
    const Fd peer = server_.accept();
    const Fail write(Call::kWrite, EIO);
    const Fail read(Call::kRead, EIO);
    another.sendMsg(parsed(kMessage), true);
    thrownBy([&] { another.waitForMsg(); });
  }
  EXPECT_EQ(openDescriptors(), before);
}
