#pragma once

#include <Kelvo/Adapters/Guest.h>
#include <ev.h>

#include <memory>

/// This thread's loop in a libev loop. A callback may destroy it.
class Libev {
 public:
  explicit Libev(struct ev_loop* host)
      : host_(host), guest_(std::make_shared<Kelvo::Adapters::Guest>()) {
    ev_io_init(&watcher_, &ready, guest_->fd(), EV_READ);
    watcher_.data = this;
    ev_io_start(host_, &watcher_);
  }
  Libev(const Libev&) = delete;
  Libev& operator=(const Libev&) = delete;
  ~Libev() { ev_io_stop(host_, &watcher_); }

  /// Runs the host until it is stopped; throws what a callback throws.
  void run() {
    const auto guest = guest_;
    ev_run(host_, 0);
    guest->rethrow();
  }

  /// For applications that run the host themselves: to be called when it returns.
  void rethrow() { guest_->rethrow(); }

 private:
  static void ready(struct ev_loop* host, ev_io* watcher, int /*events*/) {
    const auto guest = static_cast<Libev*>(watcher->data)->guest_;
    if (!guest->dispatch()) {
      ev_break(host, EVBREAK_ALL);
    }
  }

  struct ev_loop* const host_;
  const std::shared_ptr<Kelvo::Adapters::Guest> guest_;
  ev_io watcher_{};
};
