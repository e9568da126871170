#include "examples/loops/Libev.h"

#include <optional>

#include "tests/adapters/LoopSuite.h"

namespace {

/// A libev loop.
class LibevHost {
 public:
  LibevHost() {
    ev_timer_init(
        &limit_, [](struct ev_loop*, ev_timer*, int) {}, 0., 0.);
  }
  LibevHost(const LibevHost&) = delete;
  LibevHost& operator=(const LibevHost&) = delete;
  ~LibevHost() {
    detach();
    ev_loop_destroy(loop_);
  }

  void attach() { adapter_.emplace(loop_); }
  void detach() { adapter_.reset(); }
  void stop() { ev_break(loop_, EVBREAK_ALL); }
  void run() { adapter_->run(); }
  void runByItself() {
    ev_run(loop_, 0);
    adapter_->rethrow();
  }
  void turn(milliseconds atMost) {
    ev_now_update(loop_);
    ev_timer_set(&limit_, std::chrono::duration<double>(atMost).count(), 0.);
    ev_timer_start(loop_, &limit_);
    ev_run(loop_, EVRUN_ONCE);
    ev_timer_stop(loop_, &limit_);
    if (adapter_) {
      adapter_->rethrow();
    }
  }

  void soon(std::function<void()> function) {
    auto* event = new Event{{}, std::move(function)};
    ev_timer_init(
        &event->timer,
        [](struct ev_loop*, ev_timer* timer, int) {
          const std::unique_ptr<Event> owned(static_cast<Event*>(timer->data));
          owned->function();
        },
        0., 0.);
    event->timer.data = event;
    ev_timer_start(loop_, &event->timer);
  }

 private:
  struct Event {
    ev_timer timer{};
    std::function<void()> function;
  };

  struct ev_loop* const loop_ = ev_loop_new(EVFLAG_AUTO);
  ev_timer limit_{};
  std::optional<Libev> adapter_;
};

INSTANTIATE_TYPED_TEST_SUITE_P(LibevExample, Adapter, LibevHost, Numbered);

}  // namespace
