#include "examples/loops/Libev.h"

#include "tests/adapters/LoopSuite.h"

namespace {

/// A libev loop.
class LibevHost : public HostOf<Libev> {
 public:
  LibevHost() {
    ev_timer_init(
        &limit_, [](struct ev_loop*, ev_timer*, int) {}, 0., 0.);
  }
  ~LibevHost() {
    detach();
    ev_loop_destroy(loop_);
  }

  void attach() { adapter_.emplace(loop_); }
  void stop() { ev_break(loop_, EVBREAK_ALL); }
  void runByItself() {
    ev_run(loop_, 0);
    rethrow();
  }
  void turn(milliseconds atMost) {
    ev_now_update(loop_);
    ev_timer_set(&limit_, std::chrono::duration<double>(atMost).count(), 0.);
    ev_timer_start(loop_, &limit_);
    ev_run(loop_, EVRUN_ONCE);
    ev_timer_stop(loop_, &limit_);
    rethrow();
  }

  void soon(std::function<void()> function) {
    ev_once(
        loop_, -1, 0, 0., [](int, void* data) { callAndDelete(data); },
        new std::function<void()>(std::move(function)));
  }

 private:
  struct ev_loop* const loop_ = ev_loop_new(EVFLAG_AUTO);
  ev_timer limit_{};
};

INSTANTIATE_TYPED_TEST_SUITE_P(LibevExample, Adapter, LibevHost, Numbered);

}  // namespace
