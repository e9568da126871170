#include "examples/loops/Libevent.h"

#include <optional>

#include "tests/adapters/LoopSuite.h"

namespace {

/// An `event_base`.
class LibeventHost {
 public:
  LibeventHost()
      : limit_(event_new(
            base_, -1, 0, [](evutil_socket_t, short, void*) {}, nullptr)) {}
  LibeventHost(const LibeventHost&) = delete;
  LibeventHost& operator=(const LibeventHost&) = delete;
  ~LibeventHost() {
    detach();
    event_free(limit_);
    event_base_free(base_);
  }

  void attach() { adapter_.emplace(base_); }
  void detach() { adapter_.reset(); }
  void stop() { event_base_loopbreak(base_); }
  void run() { adapter_->run(); }
  void runByItself() {
    event_base_dispatch(base_);
    adapter_->rethrow();
  }
  void turn(milliseconds atMost) {
    const timeval limit{0, static_cast<suseconds_t>(atMost.count() * 1000)};
    event_add(limit_, &limit);
    event_base_loop(base_, EVLOOP_ONCE);
    event_del(limit_);
    if (adapter_) {
      adapter_->rethrow();
    }
  }

  /// In the host's next turn: one without a delay would run in this one.
  void soon(std::function<void()> function) {
    const timeval delay{0, 1};
    event_base_once(
        base_, -1, EV_TIMEOUT,
        [](evutil_socket_t, short, void* data) {
          const std::unique_ptr<std::function<void()>> owned(
              static_cast<std::function<void()>*>(data));
          (*owned)();
        },
        new std::function<void()>(std::move(function)), &delay);
  }

 private:
  event_base* const base_ = event_base_new();
  event* const limit_;
  std::optional<Libevent> adapter_;
};

INSTANTIATE_TYPED_TEST_SUITE_P(LibeventExample, Adapter, LibeventHost, Numbered);

}  // namespace
