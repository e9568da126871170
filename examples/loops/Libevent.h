#pragma once

#include <Kelvo/Adapters/Guest.h>
#include <event2/event.h>

#include <memory>

/// This thread's loop in an `event_base`. A callback may destroy it.
class Libevent {
 public:
  explicit Libevent(event_base* host)
      : guest_(std::make_shared<Kelvo::Adapters::Guest>()),
        event_(event_new(host, guest_->fd(), EV_READ | EV_PERSIST, &ready, this)) {
    event_add(event_, nullptr);
  }
  Libevent(const Libevent&) = delete;
  Libevent& operator=(const Libevent&) = delete;
  ~Libevent() { event_free(event_); }

  /// Runs the host until it is stopped; throws what a callback throws.
  void run() {
    const auto guest = guest_;
    event_base_dispatch(event_get_base(event_));
    guest->rethrow();
  }

  /// For applications that run the host themselves: to be called when it returns.
  void rethrow() { guest_->rethrow(); }

 private:
  static void ready(evutil_socket_t /*fd*/, short /*what*/, void* self) {
    event_base* host = event_get_base(static_cast<Libevent*>(self)->event_);
    const auto guest = static_cast<Libevent*>(self)->guest_;
    if (!guest->dispatch()) {
      event_base_loopbreak(host);
    }
  }

  const std::shared_ptr<Kelvo::Adapters::Guest> guest_;
  event* const event_;
};
