#include "examples/loops/Libevent.h"

#include "tests/adapters/LoopSuite.h"

namespace {

/// An `event_base`.
class LibeventHost : public HostOf<Libevent> {
 public:
  LibeventHost()
      : limit_(event_new(
            base_, -1, 0, [](evutil_socket_t, short, void*) {}, nullptr)) {}
  ~LibeventHost() {
    detach();
    event_free(limit_);
    event_base_free(base_);
  }

  void attach() { adapter_.emplace(base_); }
  void stop() { event_base_loopbreak(base_); }
  void runByItself() {
    event_base_dispatch(base_);
    rethrow();
  }
  void turn(milliseconds atMost) {
    const timeval limit{0, static_cast<suseconds_t>(atMost.count() * 1000)};
    event_add(limit_, &limit);
    event_base_loop(base_, EVLOOP_ONCE);
    event_del(limit_);
    rethrow();
  }

  /// In the host's next turn: one without a delay would run in this one.
  void soon(std::function<void()> function) {
    const timeval delay{0, 1};
    event_base_once(
        base_, -1, EV_TIMEOUT, [](evutil_socket_t, short, void* data) { callAndDelete(data); },
        new std::function<void()>(std::move(function)), &delay);
  }

 private:
  event_base* const base_ = event_base_new();
  event* const limit_;
};

INSTANTIATE_TYPED_TEST_SUITE_P(LibeventExample, Adapter, LibeventHost, Numbered);

}  // namespace
