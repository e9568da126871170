#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <utility>

#include "Kelvo/Adapters/Uv.h"

/// A libuv loop.
class UvHost {
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
  void detach() { adapter_.reset(); }
  void stop() { uv_stop(&loop_); }
  void run() { runResult = adapter_->run(); }
  void runByItself() {
    runResult = uv_run(&loop_, UV_RUN_DEFAULT);
    adapter_->rethrow();
  }

  /// The limit repeats: one that is due before libuv waits would not end the wait.
  void turn(std::chrono::milliseconds atMost) {
    const auto limit = static_cast<std::uint64_t>(atMost.count());
    uv_timer_start(
        &limit_, [](uv_timer_t*) {}, limit, limit);
    uv_run(&loop_, UV_RUN_ONCE);
    uv_timer_stop(&limit_);
    if (adapter_) {
      adapter_->rethrow();
    }
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
  std::optional<Kelvo::Adapters::Uv> adapter_;
};
