// A client of a service: calls, their ends, subscriptions, losses. What goes over the wire is in
// conformance.json.

#include "Api/Service/Proxy.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <stdexcept>

#include "Api/Json/Server.h"
#include "Kelvo/Exception.h"
#include "tests/service/Lamp.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using Tovik::object;
using Tovik::Outcome;

/// Calls and what became of them.
class Proxy : public testing::Test {
 protected:
  void connect(Tovik::ProxyOptions options = {}) {
    options.reconnectInterval = 0.01;
    proxy_.emplace(name_, std::move(options));
  }
  void call(const Tovik::Message& message, Tovik::Proxy::Seconds limit = 10s) {
    proxy_->call(message, limit,
                 [this](Outcome outcome) { outcomes_.push_back(std::move(outcome)); });
  }
  Outcome ask(const Tovik::Message& message, Tovik::Proxy::Seconds limit = 10s) {
    call(message, limit);
    return next();
  }
  Outcome next() {
    EXPECT_TRUE(turnUntil([this] { return !outcomes_.empty(); }));
    if (outcomes_.empty()) {
      return {};
    }
    Outcome first = std::move(outcomes_.front());
    outcomes_.erase(outcomes_.begin());
    return first;
  }
  void turnUntilConnected() {
    ASSERT_TRUE(turnUntil([this] { return proxy_->isConnected(); }));
  }

  const std::string name_ = uniqueName();
  std::vector<Outcome> outcomes_;
  std::optional<Tovik::Proxy> proxy_;
};

TEST_F(Proxy, EndsARefusedCallAtOnceThoughItsConnectHandlerThrows) {
  const Lamp lamp({}, name_);
  Tovik::ProxyOptions options;
  options.reconnectInterval = 3600;
  proxy_.emplace(name_, std::move(options));
  proxy_->onConnect([] { throw std::runtime_error("mine"); });
  call(parsed("[]"));
  EXPECT_THROW(turnUntilConnected(), std::runtime_error);
  EXPECT_EQ(next().end, Outcome::kRefused);
}

/// With a service.
class ProxyOfAService : public Proxy {
 protected:
  ProxyOfAService() {
    connect();
    turnUntilConnected();
  }
  Lamp lamp_{{}, name_};
};

TEST_F(ProxyOfAService, GetsThePartsOneByOne) {
  call(object("command", "count"));
  for (const int part : {1, 2, 3}) {
    const auto outcome = next();
    EXPECT_EQ(outcome.get<int>(), part);
    EXPECT_EQ(outcome.more, part != 3);
  }
}

TEST_F(ProxyOfAService, EndsACallThatTakesTooLong) {
  const auto outcome = ask(object("command", "keep"), 20ms);
  EXPECT_EQ(outcome.end, Outcome::kTimedOut);
  EXPECT_EQ(outcome.error, name_ + ": keep: no reply within 0.02 s");
  EXPECT_TRUE(proxy_->isConnected());
}

TEST_F(ProxyOfAService, EndsCallsWhenTheServerGoes) {
  call(object("command", "keep"));
  call(object("command", "keep"));
  ASSERT_TRUE(turnUntil([this] { return lamp_.kept.size() == 2; }));
  std::string reason;
  proxy_->onLoss([&reason](const std::string& why) { reason = why; });
  lamp_.destroy();
  for (int i = 0; i < 2; ++i) {
    const auto outcome = next();
    EXPECT_EQ(outcome.end, Outcome::kLost);
    EXPECT_EQ(outcome.error, name_ + ": keep: connection lost: it closed the connection");
  }
  EXPECT_EQ(reason, "it closed the connection");
  EXPECT_FALSE(proxy_->isConnected());
}

TEST_F(ProxyOfAService, EndsCallsInItsDestructor) {
  call(object("command", "keep"));
  proxy_.reset();
  ASSERT_EQ(outcomes_.size(), 1U);
  EXPECT_EQ(outcomes_[0].end, Outcome::kLost);
}

TEST_F(ProxyOfAService, MayBeDestroyedByItsCallbacks) {
  int ends = 0;
  for (int i = 0; i < 3; ++i) {
    proxy_->call(object("command", "add", "a", 1), 10s, [this, &ends](Outcome) {
      ++ends;
      proxy_.reset();
    });
  }
  EXPECT_TRUE(turnUntil([&ends] { return ends == 3; }));
}

TEST_F(ProxyOfAService, NeverCallsBackInsideACall) {
  call(parsed("[]"));
  call(object("id", 1));
  call(object("x", std::string(4096, 'x')));
  EXPECT_TRUE(outcomes_.empty());
  EXPECT_EQ(next().end, Outcome::kRefused);
  EXPECT_EQ(next().end, Outcome::kRefused);
  const auto outcome = next();
  EXPECT_EQ(outcome.end, Outcome::kTooLong);
  EXPECT_EQ(outcome.status, 90U);
}

TEST_F(ProxyOfAService, SendsTheLongestMessage) {
  const std::size_t rest = std::string(R"({"command":"switch","on":true,"x":""})").size();
  EXPECT_TRUE(ask(object("command", "switch", "on", true, "x", std::string(4071 - rest, 'x'))));
  EXPECT_EQ(ask(object("command", "switch", "on", true, "x", std::string(4072 - rest, 'x'))).end,
            Outcome::kTooLong);
}

TEST_F(ProxyOfAService, KeepsOtherEndsIfACallbackThrows) {
  proxy_->call(parsed("[]"), 1s, [](Outcome) { throw std::runtime_error("mine"); });
  call(parsed("[]"));
  EXPECT_THROW(turnUntil([this] { return !outcomes_.empty(); }), std::runtime_error);
  EXPECT_EQ(next().end, Outcome::kRefused);
}

TEST_F(ProxyOfAService, FollowsATopicUntilItUnsubscribes) {
  int events = 0;
  proxy_->subscribe("state", [&events](const Tovik::Message&) { ++events; });
  EXPECT_TRUE(ask(object("command", "switch", "on", true)));
  EXPECT_EQ(lamp_->publish("state", object("value", 1)), 0);
  EXPECT_TRUE(turnUntil([&events] { return events == 1; }));
  proxy_->unsubscribe("state");
  EXPECT_TRUE(ask(object("command", "switch", "on", true)));
  EXPECT_EQ(lamp_->publish("state", object("value", 2)), 0);
  EXPECT_TRUE(ask(object("command", "switch", "on", true)));
  EXPECT_EQ(events, 1);
}

TEST_F(ProxyOfAService, LearnsThatThereIsNoSuchTopic) {
  proxy_->subscribe("dim", {},
                    [this](Outcome outcome) { outcomes_.push_back(std::move(outcome)); });
  EXPECT_EQ(next().error, name_ + ": subscribe: no topic 'dim'");
}

TEST_F(ProxyOfAService, KnowsItsServer) {
  ASSERT_TRUE(proxy_->server().has_value());
  EXPECT_EQ(proxy_->server()->pid, getpid());
  EXPECT_EQ(proxy_->server()->uid, getuid());
  lamp_.destroy();
  turnUntil([this] { return !proxy_->isConnected(); });
  EXPECT_FALSE(proxy_->server().has_value());
}

// --- without a connection ---

TEST_F(Proxy, WaitsForItsServer) {
  connect();
  call(object("command", "add", "a", 1));
  turnUntilIdle();
  const Lamp lamp({}, name_);
  EXPECT_EQ(next().get<int>(), 2);
}

TEST_F(Proxy, SaysWhyItIsNotConnected) {
  connect();
  const auto outcome = ask(object("command", "add"), 50ms);
  EXPECT_EQ(outcome.end, Outcome::kTimedOut);
  EXPECT_EQ(outcome.error, name_ + ": add: not connected within 0.05 s: Connection refused");
}

TEST_F(Proxy, RefusesAServerThatIsNotAccepted) {
  const Lamp lamp({}, name_);
  Tovik::ProxyOptions options;
  options.accepts = [](int, unsigned, unsigned) { return false; };
  connect(std::move(options));
  EXPECT_THAT(ask(object("command", "add"), 50ms).error, HasSubstr("is not accepted"));
}

TEST_F(Proxy, RefusesCallsBeyondItsBound) {
  Tovik::ProxyOptions options;
  options.queuedRecords = 2;
  connect(std::move(options));
  call(object("command", "add"), 50ms);
  call(object("command", "add"), 50ms);
  EXPECT_EQ(ask(object("command", "add")).status, 16U);
  EXPECT_EQ(next().end, Outcome::kTimedOut);
}

TEST_F(Proxy, DoesNotWaitForAFullBacklog) {
  const Fd listener = rawListen(name_, 110, 0);
  const Fd first = rawConnect(name_);
  connect();
  EXPECT_THAT(ask(object("command", "add"), 50ms).error, HasSubstr("its backlog is full"));
  const Fd accepted(::accept(listener.get(), nullptr, nullptr));
  turnUntilConnected();
}

TEST_F(Proxy, AsksForEachTopicOnceOnAConnection) {
  const Fd listener = rawListen(name_);
  int attempts = 0;
  Tovik::ProxyOptions options;
  options.accepts = [&](int, unsigned, unsigned) {
    if (++attempts == 1) {
      Fd(::accept(listener.get(), nullptr, nullptr)).reset();  // the first thing sent finds an end
    }
    return true;
  };
  connect(std::move(options));
  proxy_->subscribe("a", {});
  proxy_->subscribe("b", {});
  ASSERT_TRUE(turnUntil([&attempts] { return attempts == 2; }));
  const Fd peer(::accept(listener.get(), nullptr, nullptr));
  EXPECT_THAT(rawReceiveNow(peer.get()), HasSubstr(R"("topics":["a"])"));
  EXPECT_THAT(rawReceiveNow(peer.get()), HasSubstr(R"("topics":["b"])"));
  EXPECT_EQ(rawReceiveNow(peer.get()), "<nothing>");
}

TEST_F(Proxy, CannotHaveANameThatNobodyCouldHave) {
  EXPECT_THROW(Tovik::Proxy(std::string(107, 'x')), Kelvo::Exception);
}

// --- with a plain server, or a wrong one ---

class ProxyOfAPlainServer : public Proxy {
 protected:
  ProxyOfAPlainServer() {
    connect();
    turnUntilConnected();
  }
  Tovik::Server server_{name_,
                        [](Tovik::Connection& connection, const Tovik::Message&) {
                          connection.sendMsg(object("type", "value"));
                        },
                        [](int, unsigned, unsigned) { return true; }};
};

TEST_F(ProxyOfAPlainServer, GetsItsOwnMessages) {
  std::vector<std::string> types;
  proxy_->onMessage([&types](const Tovik::Message& message) {
    types.push_back(*Tovik::get<std::string>(message, "type"));
  });
  call(object("command", "none"), 1s);
  turnUntil([&types] { return !types.empty(); });
  EXPECT_THAT(types, ElementsAre("value"));
}

class ProxyOfAStranger : public Proxy {
 protected:
  ProxyOfAStranger() {
    connect();
    turnUntilConnected();
    peer_ = Fd(::accept(listener_.get(), nullptr, nullptr));
  }
  const Fd listener_ = rawListen(name_);
  Fd peer_;
};

TEST_F(ProxyOfAStranger, IsNotEndedByASilentOne) {
  const std::string text(4000, 'x');
  for (int i = 0; i < 2000; ++i) {
    call(object("x", text), 100s);
  }
  turnUntilIdle();
  EXPECT_FALSE(outcomes_.empty());
  for (const auto& outcome : outcomes_) {
    EXPECT_EQ(outcome.status, 16U);
  }
  EXPECT_TRUE(proxy_->isConnected());
}

TEST_F(ProxyOfAStranger, KeepsNoMoreCallsThanABoundForOneThatAnswersNothing) {
  std::string loss;
  proxy_->onLoss([&loss](const std::string& reason) { loss = reason; });
  for (int i = 0; i <= 100; ++i) {
    call(object("command", "x"), 0s);
  }
  ASSERT_TRUE(turnUntil([&loss] { return !loss.empty(); }));
  EXPECT_EQ(loss, "the server does not answer");
  EXPECT_EQ(outcomes_.size(), 101U);
}

}  // namespace
