// Whole conversations: raw sockets, our blocking client and our client for the event loop, each
// with our server, in one process and across processes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "Api/Json/Client.h"
#include "Api/Json/Server.h"
#include "tests/tovik/ClientSupport.h"
#include "tests/tovik/Peers.h"

using ::testing::ElementsAre;

namespace {

/// A service with three commands: {"status":N} is answered with N, {"echo":X} with X, and
/// {"tell":X} sends X to all subscribers. {"wait":true} is never answered.
class Service {
 public:
  explicit Service(const std::string& name, Tovik::Server::Validator validator = admitAll)
      : server_(
            name, [this](auto& from, const auto& msg) { handle(from, msg); },
            std::move(validator)) {}

  Tovik::Server& server() { return server_; }
  std::vector<std::string> handled;

 private:
  static Tovik::Message copyOf(const rapidjson::Value& value) {
    Tovik::Message copy;
    copy.CopyFrom(value, copy.GetAllocator());
    return copy;
  }

  void handle(Tovik::Connection& from, const Tovik::Message& msg) {
    handled.push_back(compact(msg));
    if (msg.HasMember("status")) {
      from.acknowledge(msg["status"].GetUint());
    }
    if (msg.HasMember("echo")) {
      EXPECT_TRUE(from.sendMsg(copyOf(msg["echo"])));
    }
    if (msg.HasMember("tell")) {
      server_.notifyClients(copyOf(msg["tell"]));
    }
  }

  Tovik::Server server_;
};

std::string replyWith(unsigned status) {
  return R"({"type":"reply","status":)" + std::to_string(status) + "}";
}

// --- raw clients ---

class RawClient : public ::testing::Test {
 protected:
  Fd join() const {
    Fd client = rawConnect(name);
    EXPECT_GE(client.get(), 0);
    turnUntilIdle();
    return client;
  }

  /// Sends one record and lets the service deal with it.
  static void tell(const Fd& client, std::string_view record) {
    rawSend(client.get(), record);
    turnUntilIdle();
  }

  static std::vector<std::string> heardBy(const Fd& client) { return receivedBy(client.get()); }

  const std::string name = uniqueName();
  Service service{name};
};

TEST_F(RawClient, MaySendBeforeItIsAccepted) {
  const Fd client = rawConnect(name);
  rawSend(client.get(), R"({"status":1})");
  rawSend(client.get(), R"({"status":2})");
  turnUntilIdle();
  EXPECT_THAT(heardBy(client), ElementsAre(replyWith(1), replyWith(2)));
}

TEST_F(RawClient, GetsNotificationsAndNoRepliesWhileSubscribed) {
  const Fd client = join();
  tell(client, kSubscribe);
  tell(client, R"({"status":3,"tell":{"n":1}})");
  tell(client, kSubscribe);
  tell(client, kUnsubscribe);
  tell(client, R"({"tell":{"n":2}})");
  tell(client, R"({"status":4})");
  EXPECT_THAT(heardBy(client), ElementsAre(kAccepted, R"({"n":1})", replyWith(4)));
}

TEST_F(RawClient, SharesNotificationsWithTheOtherSubscribers) {
  const Fd one = join();
  const Fd two = join();
  const Fd three = join();
  tell(one, kSubscribe);
  tell(three, kSubscribe);
  tell(two, R"({"tell":{"n":1},"status":7})");
  tell(three, R"({"tell":{"n":2}})");
  EXPECT_THAT(heardBy(one), ElementsAre(kAccepted, R"({"n":1})", R"({"n":2})"));
  EXPECT_THAT(heardBy(two), ElementsAre(replyWith(7)));
  EXPECT_THAT(heardBy(three), ElementsAre(kAccepted, R"({"n":1})", R"({"n":2})"));
}

TEST(BlockingClient, LearnsThatItWasRefused) {
  const std::string closed = uniqueName();
  const Service strict(closed, [](int, unsigned, unsigned) { return false; });
  const Tovik::Client client(closed);
  turnUntilIdle();
  EXPECT_THROW(client.waitAck(), Tovik::SocketException);
  EXPECT_EQ(client.sendMsg(parsed("{}"), true), -1);
}

// --- the client for the event loop, on the server's loop ---

class LoopClient : public Tovik::AsyncClient {
 public:
  explicit LoopClient(const std::string& name, int interval = 0)
      : AsyncClient(
            name,
            [this](AsyncClient&, const Tovik::Message& msg) { received.push_back(compact(msg)); },
            [this](AsyncClient& self) {
              ++connects;
              self.asyncSendMsg(parsed(kSubscribe));
            },
            interval) {}

  bool waitFor(const std::string& text) {
    return turnUntil([&] { return !received.empty() && received.back() == text; });
  }

  int connects = 0;
  std::vector<std::string> received;
};

TEST(AsyncClientAndServer, CarryManyMessagesBothWays) {
  const std::string name = uniqueName();
  Service service(name);
  LoopClient client(name);
  ASSERT_TRUE(client.waitFor(kAccepted));
  client.asyncSendMsg(parsed(kUnsubscribe));
  constexpr unsigned kCount = 3000;
  for (unsigned i = 0; i < kCount; ++i) {
    client.asyncSendMsg(parsed("{\"status\":" + std::to_string(i) + "}"));
  }
  ASSERT_TRUE(turnUntil([&] { return client.received.size() == kCount + 1; }));
  for (unsigned i = 0; i < kCount; ++i) {
    ASSERT_EQ(client.received[i + 1], replyWith(i));
  }
}

// --- across processes ---

/// A child process, ended with this object.
class Child {
 public:
  /// `work` runs in the child on a thread of its own, since a child cannot use its parent's loop.
  explicit Child(const std::function<int()>& work) : pid_(::fork()) {
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      int result = -1;
      std::thread([&] { result = work(); }).join();
      ::_exit(result);
    }
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() { kill(); }

  void kill() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      wait();
    }
  }

  /// True once the child has ended, and nothing is left of it.
  bool hasEnded() {
    if (pid_ > 0 && ::waitpid(pid_, &status_, WNOHANG) == pid_) {
      pid_ = -1;
    }
    return pid_ < 0;
  }

  int wait() {
    ::waitpid(std::exchange(pid_, -1), &status_, 0);
    return status_;
  }

  int status() const { return status_; }

 private:
  pid_t pid_;
  int status_ = -1;
};

/// A service in a child process, ready when this is made.
class ServiceProcess {
 public:
  explicit ServiceProcess(const std::string& name)
      : ready_(rawPair()), child_([&] { return serve(name); }) {
    EXPECT_EQ(rawReceive(ready_.first.get()), "ready");
  }

  void kill() { child_.kill(); }

 private:
  int serve(const std::string& name) {
    const Service service(name);
    rawSend(ready_.second.get(), "ready");
    Kelvo::Platform::EventLoop::current().run();
    return 0;
  }

  std::pair<Fd, Fd> ready_;
  Child child_;
};

TEST(AcrossProcesses, ABlockingClientGetsItsAnswers) {
  const std::string name = uniqueName();
  const ServiceProcess service(name);
  const Tovik::Client client(name);
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(client.sendMsg(parsed("{\"status\":" + std::to_string(i) + "}"), true), i);
  }
  EXPECT_EQ(client.sendMsg(parsed(R"({"echo":{"n":[1,2]}})"), false), 0);
  EXPECT_EQ(compact(client.waitForMsg()), R"({"n":[1,2]})");
}

TEST(AcrossProcesses, ACallOfASubscribedClientBlocksAndANotificationEndsIt) {
  const std::string name = uniqueName();
  const ServiceProcess service(name);
  const Tovik::Client subscriber(name);
  const Tovik::Client other(name);
  const CapturedLog log;
  ASSERT_EQ(subscriber.sendMsg(parsed(kSubscribe), true), 0);
  for (const auto& [news, result] :
       {std::pair(R"({"n":1})", -1), {R"({"n":1,"status":7,"type":"reply"})", 7}}) {
    const OnceThisThreadSleeps telling([&, &told = news] {
      EXPECT_EQ(other.sendMsg(parsed(R"({"tell":)" + std::string(told) + "}"), false), 0);
    });
    EXPECT_EQ(subscriber.sendMsg(parsed(R"({"status":4})"), true), result);
  }
  EXPECT_EQ(log.lines(0),
            std::vector<std::string>{
                "0 Api/Json/Client waitAck: Client::waitAck(): message isn't valid ack"});
}

TEST(AcrossProcesses, ABlockingClientLearnsThatItsServerWasKilled) {
  const std::string name = uniqueName();
  ServiceProcess service(name);
  const Tovik::Client client(name);
  ASSERT_EQ(client.sendMsg(parsed(R"({"status":1})"), true), 1);
  service.kill();
  EXPECT_EQ(client.sendMsg(parsed(R"({"status":2})"), true), -1);
  try {
    client.waitAck();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const Tovik::SocketException& exception) {
    EXPECT_STREQ(exception.what(), std::strerror(EPIPE));
  }
  EXPECT_THROW(const Tovik::Client next(name), Tovik::SocketException);
}

TEST(AcrossProcesses, AnAsyncClientRenewsItsSubscriptionAfterItsServerWasKilled) {
  const std::string name = uniqueName();
  auto service = std::make_unique<ServiceProcess>(name);
  LoopClient client(name);
  for (int life = 1; life <= 3; ++life) {
    ASSERT_TRUE(client.waitFor(kAccepted));
    EXPECT_EQ(client.connects, life);
    const std::string news = "{\"life\":" + std::to_string(life) + "}";
    const Tovik::Client other(name);
    ASSERT_EQ(other.sendMsg(parsed(R"({"status":1,"tell":)" + news + "}"), true), 1);
    ASSERT_TRUE(client.waitFor(news));
    service->kill();
    ASSERT_TRUE(turnUntil([&] { return !client.isAttached(); }));
    client.received.clear();
    service = std::make_unique<ServiceProcess>(name);
  }
}

/// What one of several client processes does.
int askRepeatedly(const std::string& name, int first) {
  const Tovik::Client client(name);
  for (int i = first; i < first + 50; ++i) {
    if (client.sendMsg(parsed("{\"status\":" + std::to_string(i) + "}"), true) != i) {
      return 1;
    }
  }
  return 0;
}

TEST(AcrossProcesses, AServerAnswersSeveralClientsAtOnce) {
  const std::string name = uniqueName();
  Service service(name);
  std::vector<std::unique_ptr<Child>> children;
  for (int i = 0; i < 8; ++i) {
    children.push_back(std::make_unique<Child>([&] { return askRepeatedly(name, 1000 * i); }));
  }
  EXPECT_TRUE(turnUntil([&] {
    return std::all_of(children.begin(), children.end(),
                       [](const auto& child) { return child->hasEnded(); });
  }));
  for (const auto& child : children) {
    EXPECT_EQ(child->status(), 0);
  }
  EXPECT_EQ(service.handled.size(), 400U);
}

TEST(AcrossProcesses, AServerOutlivesAClientThatIsKilled) {
  const std::string name = uniqueName();
  Service service(name);
  Child doomed([&] {
    const Tovik::Client client(name);
    client.sendMsg(parsed(kSubscribe), true);
    client.sendMsg(parsed(R"({"wait":true})"), true);
    return 0;
  });
  ASSERT_TRUE(turnUntil([&] { return !service.handled.empty(); }));
  doomed.kill();
  service.server().notifyClients(parsed(R"({"n":1})"));
  turnUntilIdle();
  const Fd next = rawConnect(name);
  rawSend(next.get(), R"({"status":1})");
  turnUntilIdle();
  EXPECT_EQ(rawReceive(next.get()), replyWith(1));
}

}  // namespace
