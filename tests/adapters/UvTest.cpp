#include "Kelvo/Adapters/Uv.h"

#include "tests/adapters/LoopSuite.h"

namespace {

/// A libuv loop.
class UvHost : public HostOf<Kelvo::Adapters::Uv> {
 public:
  UvHost() {
    uv_loop_init(&loop_);
    uv_timer_init(&loop_, &limit_);
  }
  ~UvHost() {
    detach();
    uv_close(reinterpret_cast<uv_handle_t*>(&limit_), nullptr);
    uv_run(&loop_, UV_RUN_DEFAULT);  // until every handle is closed
    uv_loop_close(&loop_);
  }

  void attach() { adapter_.emplace(&loop_); }
  void stop() { uv_stop(&loop_); }
  void run() { runResult = adapter_->run(); }
  void runByItself() {
    runResult = uv_run(&loop_, UV_RUN_DEFAULT);
    rethrow();
  }

  /// The limit repeats: one that is due before libuv waits would not end the wait.
  void turn(milliseconds atMost) {
    const auto limit = static_cast<std::uint64_t>(atMost.count());
    uv_timer_start(
        &limit_, [](uv_timer_t*) {}, limit, limit);
    uv_run(&loop_, UV_RUN_ONCE);
    uv_timer_stop(&limit_);
    rethrow();
  }

  /// In the host's next turn: timers of zero would all run in this one.
  void soon(std::function<void()> function) {
    auto* event = new Event{{}, std::move(function)};
    event->idle.data = event;
    uv_idle_init(&loop_, &event->idle);
    uv_idle_start(&event->idle, &UvHost::call);
  }

  int runResult = 0;

 private:
  struct Event {
    uv_idle_t idle{};
    std::function<void()> function;
  };

  static void call(uv_idle_t* idle) {
    const auto function = std::move(static_cast<Event*>(idle->data)->function);
    uv_close(reinterpret_cast<uv_handle_t*>(idle),
             [](uv_handle_t* handle) { delete static_cast<Event*>(handle->data); });
    function();
  }

  uv_loop_t loop_{};
  uv_timer_t limit_{};
};

INSTANTIATE_TYPED_TEST_SUITE_P(UvAdapter, Adapter, UvHost, Numbered);

TEST(UvAdapterAlone, RunsOnUntilItIsStoppedAndTellsThatHandlesAreLeft) {
  UvHost host;
  host.attach();
  int fired = 0;
  CallingTimer timer([&] {
    if (++fired < 3) {
      return timer.arm(0.001);
    }
    host.stop();
  });
  timer.arm(0);
  host.run();
  EXPECT_EQ(fired, 3);
  EXPECT_NE(host.runResult, 0) << "the adapter's own";
}

TEST(UvAdapterAlone, LetsTheHostBeClosedAfterOneMoreTurn) {
  uv_loop_t loop;
  ASSERT_EQ(uv_loop_init(&loop), 0);
  { const Kelvo::Adapters::Uv adapter(&loop); }
  EXPECT_EQ(uv_run(&loop, UV_RUN_DEFAULT), 0);
  EXPECT_EQ(uv_loop_close(&loop), 0);
}

TEST(UvAdapterAlone, MayOutliveItsHostThatClosesWhateverItHas) {
  auto loop = std::make_unique<uv_loop_t>();
  ASSERT_EQ(uv_loop_init(loop.get()), 0);
  const auto adapter = std::make_unique<Kelvo::Adapters::Uv>(loop.get());
  uv_walk(
      loop.get(), [](uv_handle_t* handle, void*) { uv_close(handle, nullptr); }, nullptr);
  EXPECT_EQ(uv_run(loop.get(), UV_RUN_DEFAULT), 0);
  EXPECT_EQ(uv_loop_close(loop.get()), 0);
  loop.reset();
}

}  // namespace
