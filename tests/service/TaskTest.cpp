// Coroutines that call a service.

#include "Api/Service/Task.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/service/Lamp.h"

namespace {

using namespace std::chrono_literals;
using Tovik::object;

Tovik::Task<int> sum(Tovik::Proxy& proxy, int a, int b) {
  const auto outcome = co_await proxy.call(object("command", "add", "a", a, "b", b), 10s);
  if (!outcome) {
    throw std::runtime_error(outcome.error);
  }
  co_return* outcome.get<int>();
}

Tovik::Task<> sums(Tovik::Proxy& proxy, std::vector<int>& results) {
  results.push_back(co_await sum(proxy, 1, 2));
  results.push_back(co_await sum(proxy, results[0], 3));
  const auto refused = co_await proxy.call(object("command", "refuse"), 10s);
  results.push_back(static_cast<int>(refused.status));
}

TEST(Task, WaitsForOutcomes) {
  const Lamp lamp;
  Tovik::Proxy proxy(lamp.name());
  std::vector<int> results;
  const auto task = sums(proxy, results);
  EXPECT_TRUE(turnUntil([&task] { return task.await_ready(); }));
  EXPECT_EQ(results, (std::vector{3, 6, 13}));
}

TEST(Task, MayBeDropped) {
  const Lamp lamp;
  Tovik::Proxy proxy(lamp.name());
  std::vector<int> results;
  { const auto task = sums(proxy, results); }
  EXPECT_TRUE(turnUntil([&results] { return results.size() == 3; }));
}

TEST(Task, EndsWithItsProxy) {
  std::optional<Tovik::Proxy> proxy(uniqueName());
  const auto task = sum(*proxy, 1, 2);
  turnUntilIdle();
  proxy.reset();
  ASSERT_TRUE(task.await_ready());
  EXPECT_THROW(const_cast<Tovik::Task<int>&>(task).await_resume(), std::runtime_error);
}

TEST(Task, ThrowsThroughTheLoopIfNobodyWaits) {
  const Lamp lamp;
  Tovik::Proxy proxy(lamp.name());
  const auto refuse = [](Tovik::Proxy& of) -> Tovik::Task<> {
    co_await of.call(object("command", "switch", "on", true), 10s);
    throw std::runtime_error("mine");
  };
  { const auto dropped = refuse(proxy); }
  EXPECT_THROW(turnUntil([] { return false; }), std::runtime_error);
  {
    const auto ended = refuse(proxy);
    turnUntil([&ended] { return ended.await_ready(); });
  }
  EXPECT_THROW(turnUntil([] { return false; }), std::runtime_error);
}

}  // namespace
