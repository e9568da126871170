// The blocking call, and how it fails. What it gets from services is in conformance.json.

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <thread>

#include "Api/Service/Proxy.h"
#include "Kelvo/Exception.h"
#include "tests/service/Lamp.h"

namespace {

using namespace std::chrono_literals;
using Tovik::object;
using Tovik::Outcome;

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
