// Events and who gets them. What goes over the wire is in conformance.json.

#include <gmock/gmock.h>

#include <limits>

#include "Api/Service/Object.h"
#include "tests/service/Lamp.h"

namespace {

using testing::HasSubstr;
using Tovik::object;

constexpr auto kDone = R"({"type":"reply","status":0})";

class Topic : public testing::Test {
 protected:
  std::string ask(std::string_view record) { return Lamp::ask(client_, record); }
  std::string next() { return Lamp::receive(client_); }
  std::string now() { return rawReceiveNow(client_.get()); }
  int publish(const char* topic, int value) {
    return lamp_->publish(topic, object("value", value));
  }
  static std::string event(const std::string& topic, int value) {
    return R"({"type":"event","topic":")" + topic + R"(","value":)" + std::to_string(value) + "}";
  }
  /// Publishes until the client's socket is full and something waits for it.
  void stall(const char* topic) {
    for (int i = 0; lamp_.session->queuedRecords() < 2; ++i) {
      ASSERT_EQ(publish(topic, i), 0);
    }
  }

  struct WatchedLamp : Lamp {
    explicit WatchedLamp(Tovik::ServiceOptions options = {}) : Lamp(std::move(options)) {
      (*this)->onJoin([this](Tovik::Session& begun) { session = &begun; });
    }
    Tovik::Session* session = nullptr;
  };
  WatchedLamp lamp_;
  Fd client_ = lamp_.connect();
};

TEST_F(Topic, TakesObjectsThatFit) {
  EXPECT_EQ(lamp_->publish("dim", object()), 22);
  EXPECT_EQ(lamp_->publish("plain", parsed("[]")), 22);
  EXPECT_EQ(lamp_->publish("plain", parsed("{")), 22);
  EXPECT_EQ(lamp_->publish("plain", object("topic", 1)), 22);
  EXPECT_EQ(lamp_->publish("plain", object("x", std::numeric_limits<double>::infinity())), 22);
  ask(R"({"command":"subscribe","topics":[]})");
  for (const char* topic : {"plain", "state"}) {
    std::size_t size = 4000;
    while (lamp_->publish(topic, object("x", std::string(size, 'x'))) == 0) {
      EXPECT_LE(next().size(), 4094U);
      ++size;
    }
    EXPECT_EQ(lamp_->publish(topic, object("x", std::string(size, 'x'))), 90);
  }
  EXPECT_EQ(lamp_->publish("plain", object()), 0);
  EXPECT_EQ(next(), R"({"type":"event","topic":"plain"})");
  const Fd another = lamp_.connect();
  Lamp::tell(another, R"({"command":"subscribe","topics":["state"]})");
  EXPECT_EQ(Lamp::receive(another), kDone);
  EXPECT_EQ(Lamp::receive(another).size(), 4094U) << "the longest snapshot";
}

TEST_F(Topic, EndsASessionWhoseQueueIsFull) {
  ask(R"({"command":"subscribe","topics":["plain"]})");
  stall("plain");
  std::size_t most = 0;
  while (lamp_->sessions() == 1 && most < 2000) {
    publish("plain", 7);
    most = std::max(most, lamp_.session->queuedRecords());
    if (lamp_.session->queuedRecords() == 0) {
      turnUntilIdle();
    }
  }
  EXPECT_EQ(most, 1000U);
  EXPECT_EQ(lamp_.left.size(), 1U);
}

TEST_F(Topic, EndsASessionWhoseQueueHoldsTooManyBytes) {
  ask(R"({"command":"subscribe","topics":["plain"]})");
  stall("plain");
  std::size_t most = 0;
  for (int i = 0; i < 1000 && lamp_.session->queuedRecords() != 0; ++i) {
    EXPECT_EQ(lamp_->publish("plain", object("x", std::string(4000, 'x'))), 0);
    most = std::max(most, lamp_.session->queuedBytes());
  }
  EXPECT_GT(most, 256U * 1024 - 4096);
  EXPECT_LE(most, 256U * 1024);
  turnUntilIdle();
  EXPECT_EQ(lamp_.left.size(), 1U);
}

TEST_F(Topic, KeepsOnlyTheLatestForASlowReader) {
  ask(R"({"command":"subscribe","topics":[]})");
  stall("plain");
  const std::size_t waiting = lamp_.session->queuedRecords();
  for (int i = 0; i < 10000; ++i) {
    ASSERT_EQ(publish("level", i), 0);
  }
  EXPECT_EQ(lamp_.session->queuedRecords(), waiting + 1);
  std::string last, record;
  while (turnUntilIdle(), (record = now()) != "<nothing>") {
    last = record;
  }
  EXPECT_EQ(last, event("level", 9999));
}

}  // namespace
