#include "examples/loops/Wayland.h"

#include <list>

#include "tests/adapters/LoopSuite.h"

namespace {

/// A Wayland display without clients.
class WaylandHost : public HostOf<Wayland> {
 public:
  ~WaylandHost() {
    detach();
    for (auto& event : events_) {
      wl_event_source_remove(event.timer);
    }
    wl_display_destroy(display_);
  }

  void attach() { adapter_.emplace(display_); }
  void stop() { wl_display_terminate(display_); }
  void runByItself() {
    wl_display_run(display_);
    rethrow();
  }
  void turn(milliseconds atMost) {
    wl_event_loop_dispatch(loop(), static_cast<int>(atMost.count()));
    rethrow();
  }

  /// In a later turn: what is called when the host is idle would run in this one.
  void soon(std::function<void()> function) {
    auto& event = events_.emplace_back();
    event.function = std::move(function);
    event.timer = wl_event_loop_add_timer(
        loop(), [](void* data) { return (static_cast<Event*>(data)->function(), 0); }, &event);
    wl_event_source_timer_update(event.timer, 1);
  }

 private:
  struct Event {
    wl_event_source* timer = nullptr;
    std::function<void()> function;
  };

  wl_event_loop* loop() { return wl_display_get_event_loop(display_); }

  wl_display* const display_ = wl_display_create();
  std::list<Event> events_;
};

INSTANTIATE_TYPED_TEST_SUITE_P(WaylandExample, Adapter, WaylandHost, Numbered);

}  // namespace
