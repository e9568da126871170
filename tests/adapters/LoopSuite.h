#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Api/Json/Client.h"
#include "Api/Json/Server.h"
#include "Kelvo/Platform/EventLoop.h"
#include "Kelvo/Platform/TimeoutHandler.h"
#include "tests/support/Support.h"

// One suite for every adapter. A test file describes its foreign loop as a class, a `HostOf`, with
//
//     void attach();                       makes the adapter
//     void runByItself();                  runs the host until `stop`, then asks for the exception
//     void stop();                         called inside a callback
//     void turn(milliseconds atMost);      one turn of the host, which waits so long at most
//     void soon(std::function<void()>);    has the host itself call that, soon
//
// and instantiates the suite with it.

using std::chrono::milliseconds;
using SteadyClock = std::chrono::steady_clock;

/// What hosts have in common.
template <class Kind>
class HostOf {
 public:
  HostOf() = default;
  HostOf(const HostOf&) = delete;
  HostOf& operator=(const HostOf&) = delete;

  /// Destroys the adapter; also inside a callback.
  void detach() { adapter_.reset(); }
  /// Runs the host through the adapter until `stop`.
  void run() { adapter_->run(); }

 protected:
  void rethrow() {
    if (adapter_) {
      adapter_->rethrow();
    }
  }

  std::optional<Kind> adapter_;
};

/// What a host in C calls once: its data is a function on the heap.
inline void callAndDelete(void* data) {
  const std::unique_ptr<std::function<void()>> owned(static_cast<std::function<void()>*>(data));
  (*owned)();
}

/// A timer whose expiry calls a function.
class CallingTimer : public Kelvo::Platform::TimeoutHandler {
 public:
  explicit CallingTimer(std::function<void()> function)
      : function_(std::move(function)), timer_(Kelvo::Platform::getTimer(this)) {}

  void arm(double seconds) { timer_->arm(seconds); }
  void timeout() override {
    const auto function = function_;  // which may destroy this timer
    function();
  }

 private:
  const std::function<void()> function_;
  const Kelvo::Ptr<Kelvo::Platform::Timer> timer_;
};

template <class Host>
class Adapter : public ::testing::Test {
 public:
  Adapter() { host.attach(); }

  void serve() {
    server = std::make_unique<Tovik::Server>(
        name, [this](Tovik::Connection& from, const Tovik::Message& msg) { onMessage(from, msg); },
        [](int, unsigned, unsigned) { return true; });
  }

  void connect() {
    client = std::make_unique<Tovik::AsyncClient>(
        name,
        [this](Tovik::AsyncClient&, const Tovik::Message& msg) {
          received.emplace_back(Tovik::Message::toStr(msg, false).data());
          if (onReply) {
            onReply();
          }
        },
        [this](Tovik::AsyncClient&) {
          ++connected;
          if (onConnect) {
            onConnect();
          }
        },
        0);
  }

  /// To a server of its own.
  bool connects() {
    serve();
    connect();
    return turnUntil([&] { return connected == 1; });
  }

  void send(const std::string& text) { client->asyncSendMsg(parsed(text)); }

  /// From now on each reply makes the client send the next message: the loop is never idle.
  void flood() {
    onReply = [this] { send(R"({"more":true})"); };
    onConnect = onReply;
    serve();
    connect();
  }

  bool turnUntil(const std::function<bool()>& condition) {
    const auto deadline = SteadyClock::now() + std::chrono::seconds(10);
    while (!condition()) {
      if (SteadyClock::now() > deadline) {
        return false;
      }
      host.turn(milliseconds(10));
    }
    return true;
  }

  void makeTurns(int turns, milliseconds atMost = milliseconds(1)) {
    for (int i = 0; i < turns; ++i) {
      host.turn(atMost);
    }
  }

  bool turnUntilReceived(std::size_t messages) {
    return turnUntil([&] { return received.size() >= messages; });
  }

  /// What `run` throws; "" if it returns.
  template <class Run>
  std::string thrownBy(Run run) {
    try {
      run();
    } catch (const std::runtime_error& failure) {
      return failure.what();
    }
    return "";
  }

  const std::string name = uniqueName();
  Host host;
  std::unique_ptr<Tovik::Server> server;
  std::unique_ptr<Tovik::AsyncClient> client;
  std::function<void(Tovik::Connection&, const Tovik::Message&)> onMessage =
      [](Tovik::Connection& from, const Tovik::Message&) { from.acknowledge(3); };
  std::function<void()> onReply;
  std::function<void()> onConnect;
  std::vector<std::string> received;
  int connected = 0;
};

constexpr auto kThree = R"({"type":"reply","status":3})";

TYPED_TEST_SUITE_P(Adapter);

TYPED_TEST_P(Adapter, CarriesAnAsynchronousClient) {
  ASSERT_TRUE(this->connects());
  this->send(R"({"a":1})");
  ASSERT_TRUE(this->turnUntilReceived(1));
  EXPECT_EQ(this->received.front(), kThree);
}

TYPED_TEST_P(Adapter, NotifiesSubscribers) {
  this->onConnect = [&] { this->send(R"({"command":"set","notification":true})"); };
  this->serve();
  this->connect();
  ASSERT_TRUE(this->turnUntilReceived(1));
  this->host.soon([&] { this->server->notifyClients(parsed(R"({"news":1})")); });
  ASSERT_TRUE(this->turnUntilReceived(2));
  EXPECT_EQ(this->received,
            (std::vector<std::string>{R"({"type":"reply","status":0})", R"({"news":1})"}));
}

TYPED_TEST_P(Adapter, ReconnectsAfterALoss) {
  ASSERT_TRUE(this->connects());
  this->server.reset();
  ASSERT_TRUE(this->turnUntil([&] { return !this->client->isAttached(); }));
  this->makeTurns(5);
  EXPECT_EQ(this->connected, 1);
  this->serve();
  EXPECT_TRUE(this->turnUntil([&] { return this->connected == 2; }));
}

TYPED_TEST_P(Adapter, FiresTimersInOrderAndNeverEarly) {
  const auto start = SteadyClock::now();
  std::vector<int> fired;
  std::vector<double> late;
  std::vector<std::unique_ptr<CallingTimer>> timers;
  for (const int number : {3, 1, 2}) {
    const double due = number * 0.004;
    timers.push_back(std::make_unique<CallingTimer>([&, number, due] {
      fired.push_back(number);
      late.push_back(std::chrono::duration<double>(SteadyClock::now() - start).count() - due);
    }));
    timers.back()->arm(due);
  }
  EXPECT_TRUE(this->turnUntil([&] { return fired.size() == 3; }));
  EXPECT_EQ(fired, (std::vector<int>{1, 2, 3}));
  EXPECT_GE(*std::min_element(late.begin(), late.end()), 0);
}

TYPED_TEST_P(Adapter, FiresATimerThatIsArmedAnewInItsOwnCallback) {
  int fired = 0;
  CallingTimer timer([&] {
    if (++fired == 10) {
      return this->host.stop();
    }
    timer.arm(0.001);
  });
  timer.arm(0);
  this->host.run();
  EXPECT_EQ(fired, 10);
}

TYPED_TEST_P(Adapter, WaitsWhileNothingIsDue) {
  ASSERT_TRUE(this->connects());
  turnUntilIdle();
  this->host.turn(milliseconds(1));  // may report what was there before
  const auto start = SteadyClock::now();
  this->makeTurns(5, milliseconds(10));
  EXPECT_GE(SteadyClock::now() - start, milliseconds(40));
}

TYPED_TEST_P(Adapter, LetsACallbacksExceptionOutOfRunAndRunsAgain) {
  this->onMessage = [&](auto&, auto&) { throw std::runtime_error("mine"); };
  this->serve();
  const Fd peer = rawConnect(this->name);
  for (int i = 0; i < 2; ++i) {
    rawSend(peer.get(), R"({"a":1})");
    EXPECT_EQ(this->thrownBy([&] { this->host.run(); }), "mine");
  }
  this->onMessage = [&](Tovik::Connection& from, auto&) {
    from.acknowledge(3);
    this->host.stop();
  };
  rawSend(peer.get(), R"({"a":1})");
  EXPECT_EQ(this->thrownBy([&] { this->host.run(); }), "");
  EXPECT_EQ(rawReceiveNow(peer.get()), kThree);
}

TYPED_TEST_P(Adapter, LosesNoOtherEventToAnException) {
  std::vector<std::string> fired;
  CallingTimer throwing([&] {
    fired.emplace_back("first");
    throw std::runtime_error("mine");
  });
  CallingTimer other([&] {
    fired.emplace_back("second");
    this->host.stop();
  });
  throwing.arm(0);
  other.arm(0.0001);
  EXPECT_EQ(this->thrownBy([&] { this->host.run(); }), "mine");
  EXPECT_EQ(this->thrownBy([&] { this->host.run(); }), "");
  EXPECT_EQ(fired, (std::vector<std::string>{"first", "second"}));
}

TYPED_TEST_P(Adapter, HandsTheExceptionToAnApplicationThatRunsTheHostItself) {
  CallingTimer throwing([] { throw std::runtime_error("mine"); });
  throwing.arm(0);
  EXPECT_EQ(this->thrownBy([&] { this->host.runByItself(); }), "mine");
}

TYPED_TEST_P(Adapter, LetsACallbackDestroyTheServerAndItsClient) {
  this->flood();
  CallingTimer destroyer([&] {
    this->server.reset();
    this->client.reset();
    this->host.soon([&] { this->host.stop(); });
  });
  ASSERT_TRUE(this->turnUntilReceived(10));
  destroyer.arm(0);
  this->host.run();
  EXPECT_EQ(this->server, nullptr);
}

TYPED_TEST_P(Adapter, LetsACallbackDestroyItAndAnotherOneTakeItsPlace) {
  this->serve();
  const Fd peer = rawConnect(this->name);
  CallingTimer destroyer([&] {
    this->host.detach();
    this->host.soon([&] { this->host.stop(); });
  });
  destroyer.arm(0);
  this->host.run();
  rawSend(peer.get(), R"({"a":1})");
  this->makeTurns(3);
  EXPECT_EQ(rawReceiveNow(peer.get()), "<nothing>") << "nobody watches the loop now";
  this->host.attach();
  EXPECT_TRUE(this->turnUntil([&] { return rawReceiveNow(peer.get()) == kThree; }));
}

TYPED_TEST_P(Adapter, LetsACallbackDestroyItAndThrow) {
  CallingTimer destroyer([&] {
    this->host.detach();
    throw std::runtime_error("mine");
  });
  destroyer.arm(0);
  EXPECT_EQ(this->thrownBy([&] { this->host.run(); }), "mine");
}

TYPED_TEST_P(Adapter, LeavesTheLoopInOrderAndNoDescriptorBehind) {
  this->serve();
  this->host.turn(milliseconds(1));
  const auto before = openDescriptors();
  for (int i = 0; i < 10; ++i) {
    this->host.detach();
    this->host.turn(milliseconds(1));
    this->host.attach();
  }
  EXPECT_EQ(openDescriptors(), before);
  const Fd peer = rawConnect(this->name);
  rawSend(peer.get(), R"({"a":1})");
  this->host.detach();
  this->makeTurns(3);
  EXPECT_EQ(rawReceiveNow(peer.get()), "<nothing>");
  turnUntilIdle();
  EXPECT_EQ(rawReceiveNow(peer.get()), kThree);
}

TYPED_TEST_P(Adapter, LetsTheHostsOwnEventsThroughUnderLoad) {
  this->flood();
  ASSERT_TRUE(this->turnUntilReceived(10));
  int own = 0;
  std::function<void()> next = [&] {
    if (++own < 100) {
      return this->host.soon(next);
    }
    this->host.stop();
  };
  const auto before = this->received.size();
  this->host.soon(next);
  this->host.run();
  EXPECT_EQ(own, 100);
  EXPECT_GT(this->received.size(), before) << "and the load goes on meanwhile";
}

// Lateness is counted in messages and not in time: a process that has to wait for its processor
// handles no messages meanwhile. A few ticks may be late all the same, since the kernel's timer can
// belong to a processor that a virtual machine's host has taken away.
TYPED_TEST_P(Adapter, KeepsTimersToTheirScheduleUnderLoad) {
  constexpr int kTicks = 40;
  constexpr milliseconds kPeriod(5);
  auto due = SteadyClock::now() + kPeriod;
  int overdue = 0;  // messages handled since the timer was due
  int late = 0;
  this->flood();
  this->onReply = [&, next = this->onReply] {
    overdue += SteadyClock::now() > due ? 1 : 0;
    next();
  };
  int ticks = 0;
  CallingTimer timer([&] {
    EXPECT_GE(SteadyClock::now(), due - milliseconds(1));
    late += std::exchange(overdue, 0) > 10 ? 1 : 0;
    if (++ticks >= kTicks && this->received.size() > 1000) {
      return this->host.stop();
    }
    due = std::max(due + kPeriod, SteadyClock::now() + milliseconds(2));
    timer.arm(std::chrono::duration<double>(due - SteadyClock::now()).count());
  });
  timer.arm(std::chrono::duration<double>(due - SteadyClock::now()).count());
  this->host.run();
  EXPECT_LE(late, kTicks / 4) << "a due timer waits for the turn at hand and no more";
}

REGISTER_TYPED_TEST_SUITE_P(
    Adapter, CarriesAnAsynchronousClient, NotifiesSubscribers, ReconnectsAfterALoss,
    FiresTimersInOrderAndNeverEarly, FiresATimerThatIsArmedAnewInItsOwnCallback,
    WaitsWhileNothingIsDue, LetsACallbacksExceptionOutOfRunAndRunsAgain,
    LosesNoOtherEventToAnException, HandsTheExceptionToAnApplicationThatRunsTheHostItself,
    LetsACallbackDestroyTheServerAndItsClient, LetsACallbackDestroyItAndAnotherOneTakeItsPlace,
    LetsACallbackDestroyItAndThrow, LeavesTheLoopInOrderAndNoDescriptorBehind,
    LetsTheHostsOwnEventsThroughUnderLoad, KeepsTimersToTheirScheduleUnderLoad);

/// Names the instances, of which each test file has one.
struct Numbered {
  template <class Host>
  static std::string GetName(int number) {  // NOLINT(readability-identifier-naming): its name
    return std::to_string(number);
  }
};
