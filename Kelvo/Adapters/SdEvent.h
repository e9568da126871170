#pragma once

#include <sys/epoll.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "../Exception.h"
#include "Guest.h"

namespace Kelvo::Adapters {

/// This thread's loop in an `sd_event` loop. Guest.h tells what adapters promise.
class SdEvent {
 public:
  /// @throws Kelvo::Exception if sd-event refuses.
  explicit SdEvent(sd_event* host) : guest_(std::make_shared<HostedGuest>(host)) {
    check(sd_event_add_io(host, &source_, guest_->fd(), EPOLLIN, &ready, guest_.get()));
  }
  SdEvent(const SdEvent&) = delete;
  SdEvent& operator=(const SdEvent&) = delete;
  ~SdEvent() { sd_event_source_disable_unref(source_); }

  /// Runs the host until it exits, and returns its exit code; or throws what a callback throws, and
  /// may be called again after that.
  int run() {
    const auto guest = guest_;  // a callback may destroy this adapter
    const HostedGuest::Running running(*guest);
    while (sd_event_get_state(guest->host.get()) != SD_EVENT_FINISHED) {
      check(sd_event_run(guest->host.get(), UINT64_MAX));
      guest->rethrow();
    }
    int code = 0;
    check(sd_event_get_exit_code(guest->host.get(), &code));
    return code;
  }

  /// For applications that run the host themselves: to be called after each `sd_event_run`, and
  /// after `sd_event_loop`. The latter exits with `EXIT_FAILURE` because of the exception, which
  /// ends a host for good: sd-event does not run again after an exit.
  void rethrow() { guest_->rethrow(); }

 private:
  struct HostedGuest : Guest, std::enable_shared_from_this<HostedGuest> {
    explicit HostedGuest(sd_event* event) : host(sd_event_ref(event), &sd_event_unref) {}

    struct Running {
      explicit Running(HostedGuest& running) : guest(running) { ++guest.running; }
      Running(const Running&) = delete;
      Running& operator=(const Running&) = delete;
      ~Running() { --guest.running; }
      HostedGuest& guest;
    };

    const std::unique_ptr<sd_event, sd_event* (*)(sd_event*)> host;
    int running = 0;  // how many of our own `run` would rethrow
  };

  static int ready(sd_event_source* /*source*/, int /*fd*/, std::uint32_t /*events*/, void* data) {
    const auto guest = static_cast<HostedGuest*>(data)->shared_from_this();
    if (!guest->dispatch() && guest->running == 0) {
      sd_event_exit(guest->host.get(), EXIT_FAILURE);
    }
    return 0;
  }

  static void check(int result) {
    if (result < 0) {
      throw Exception(std::strerror(-result), true);
    }
  }

  const std::shared_ptr<HostedGuest> guest_;
  sd_event_source* source_ = nullptr;
};

}  // namespace Kelvo::Adapters
