#pragma once

#include <Kelvo/Adapters/Guest.h>
#include <wayland-server-core.h>

#include <memory>

/// This thread's loop in the `wl_event_loop` of a Wayland server. A callback may destroy it.
class Wayland {
 public:
  explicit Wayland(wl_display* host)
      : host_(host),
        guest_(std::make_shared<Kelvo::Adapters::Guest>()),
        source_(wl_event_loop_add_fd(wl_display_get_event_loop(host), guest_->fd(),
                                     WL_EVENT_READABLE, &ready, this)) {}
  Wayland(const Wayland&) = delete;
  Wayland& operator=(const Wayland&) = delete;
  ~Wayland() { wl_event_source_remove(source_); }

  /// Runs the host until it is terminated; throws what a callback throws.
  void run() {
    const auto guest = guest_;
    wl_display_run(host_);
    guest->rethrow();
  }

  /// For applications that run the host themselves: to be called when it returns.
  void rethrow() { guest_->rethrow(); }

 private:
  static int ready(int /*fd*/, unsigned /*mask*/, void* self) {
    wl_display* host = static_cast<Wayland*>(self)->host_;
    const auto guest = static_cast<Wayland*>(self)->guest_;
    if (!guest->dispatch()) {
      wl_display_terminate(host);
    }
    return 0;
  }

  wl_display* const host_;
  const std::shared_ptr<Kelvo::Adapters::Guest> guest_;
  wl_event_source* const source_;
};
