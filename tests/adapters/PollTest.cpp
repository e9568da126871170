#include "Kelvo/Adapters/Poll.h"

#include <deque>

#include "Kelvo/Adapters/Guest.h"
#include "tests/adapters/LoopSuite.h"

namespace {

/// A plain poll, in a loop of the application's own.
class PollHost : public HostOf<Kelvo::Adapters::Poll> {
 public:
  void attach() { adapter_.emplace(); }
  void stop() { stopped_ = true; }
  void soon(std::function<void()> function) { soon_.push_back(std::move(function)); }

  void run() {
    for (stopped_ = false; !stopped_;) {
      turn(milliseconds(-1));
    }
  }
  void runByItself() { run(); }

  void turn(milliseconds atMost) {
    pollfd entry{-1, 0, 0};
    if (adapter_) {
      entry = adapter_->entry();
    }
    poll(&entry, 1, soon_.empty() ? static_cast<int>(atMost.count()) : 0);
    if (!soon_.empty()) {
      const auto function = std::move(soon_.front());
      soon_.pop_front();
      function();
    }
    if (adapter_) {
      adapter_->dispatch(entry);
    }
  }

 private:
  std::deque<std::function<void()>> soon_;
  bool stopped_ = false;
};

INSTANTIATE_TYPED_TEST_SUITE_P(PollAdapter, Adapter, PollHost, Numbered);

TEST(PollAdapterAlone, TurnsOnlyWhenItsEntryWasReported) {
  Kelvo::Adapters::Poll adapter;
  int fired = 0;
  CallingTimer timer([&] { ++fired; });
  timer.arm(0);
  pollfd entry = adapter.entry();
  EXPECT_FALSE(adapter.dispatch(entry));
  EXPECT_EQ(fired, 0);
  ASSERT_EQ(poll(&entry, 1, 10000), 1);
  EXPECT_TRUE(adapter.dispatch(entry));
  EXPECT_EQ(fired, 1);
}

TEST(Guest, KeepsTheFirstExceptionIfATurnWithinATurnFailsToo) {
  Kelvo::Adapters::Guest guest;
  CallingTimer inner([] { throw std::runtime_error("inner"); });
  CallingTimer outer([&] {
    inner.arm(0);
    while (guest.dispatch()) {
    }
    throw std::runtime_error("outer");
  });
  outer.arm(0);
  while (guest.dispatch()) {
  }
  try {
    guest.rethrow();
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "inner");
  }
  EXPECT_TRUE(guest.dispatch());
}

TEST(PollAdapterAlone, TakesAFalseReportForNothing) {
  const auto name = uniqueName();
  const Tovik::Server server(
      name, [](Tovik::Connection& from, const Tovik::Message&) { from.acknowledge(3); },
      [](int, unsigned, unsigned) { return true; });
  const Fd peer = rawConnect(name);
  turnUntilIdle();
  Kelvo::Adapters::Poll adapter;
  pollfd entry = adapter.entry();
  entry.revents = POLLIN | POLLERR;
  EXPECT_FALSE(adapter.dispatch(entry)) << "neither a client to accept nor a record to read";
  rawSend(peer.get(), R"({"a":1})");
  EXPECT_TRUE(adapter.dispatch(entry));
  EXPECT_EQ(rawReceiveNow(peer.get()), kThree);
}

}  // namespace
