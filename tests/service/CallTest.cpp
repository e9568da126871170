// The blocking call.

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "Api/Service/Proxy.h"
#include "Kelvo/Exception.h"
#include "tests/service/Lamp.h"

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using Tovik::object;
using Tovik::Outcome;

/// Makes the call in a thread while this one serves.
Outcome callOf(const std::string& name, const Tovik::Message& message) {
  Outcome outcome;
  std::atomic<bool> done{false};
  std::thread caller([&] {
    outcome = Tovik::call(name, message, 10s);
    done = true;
  });
  EXPECT_TRUE(turnUntil([&done] { return done.load(); }));
  caller.join();
  return outcome;
}

TEST(Call, GetsAResult) {
  const Lamp lamp;
  EXPECT_EQ(callOf(lamp.name(), object("command", "add", "a", 1)).get<int>(), 2);
}

TEST(Call, GetsAllParts) {
  const Lamp lamp;
  const auto outcome = callOf(lamp.name(), object("command", "count"));
  EXPECT_EQ(outcome.earlier.size(), 2U);
  EXPECT_EQ(outcome.get<int>(), 3);
}

TEST(Call, GetsAnError) {
  const Lamp lamp;
  const auto outcome = callOf(lamp.name(), object("command", "dim"));
  EXPECT_EQ(outcome.status, 38U);
  EXPECT_EQ(outcome.error, lamp.name() + ": dim: no command 'dim'");
}

TEST(Call, IsRefusedWithoutAServer) {
  const std::string name = uniqueName();
  const auto outcome = Tovik::call(name, object("command", "x"), 1s);
  EXPECT_EQ(outcome.end, Outcome::kRefused);
  EXPECT_EQ(outcome.error, name + ": x: Connection refused");
  EXPECT_EQ(Tovik::call(name, parsed("7"), 1s).status, 22U);
  EXPECT_EQ(Tovik::call(name, object("x", std::string(5000, 'x')), 1s).end, Outcome::kTooLong);
  EXPECT_THROW(Tovik::call(std::string(107, 'x'), object(), 1s), Kelvo::Exception);
}

TEST(Call, EndsInTime) {
  const std::string name = uniqueName();
  const Fd listener = rawListen(name, 110, 0);
  EXPECT_EQ(Tovik::call(name, object("command", "x"), 50ms).error,
            name + ": x: no reply within 0.05 s");
  const auto full = Tovik::call(name, object("command", "x"), 50ms);
  EXPECT_EQ(full.end, Outcome::kTimedOut);
  EXPECT_EQ(full.error, name + ": x: not connected within 0.05 s");
  EXPECT_EQ(Tovik::call(name, object("command", "x"), -1s).end, Outcome::kTimedOut);
}

TEST(Call, IsLostWithItsConnection) {
  const std::string name = uniqueName();
  const Fd listener = rawListen(name);
  std::thread server([&listener] {
    const Fd peer(::accept(listener.get(), nullptr, nullptr));
    EXPECT_EQ(rawReceive(peer.get()), R"({"id":1,"command":"x"})");
    rawSend(peer.get(), "garbage");
    rawSend(peer.get(), R"({"type":"reply","id":2,"status":0})");
    rawSend(peer.get(), std::string(5000, 'x'));
  });
  const auto outcome = Tovik::call(name, object("command", "x"), 10s);
  server.join();
  EXPECT_EQ(outcome.end, Outcome::kLost);
  EXPECT_EQ(outcome.error, name + ": x: connection lost: it closed the connection");
}

}  // namespace
