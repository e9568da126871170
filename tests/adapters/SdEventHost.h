#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "Kelvo/Adapters/SdEvent.h"

/// An sd-event loop. It does not run again after an exit, so a stopped one is replaced.
class SdEventHost {
 public:
  SdEventHost() { sd_event_new(&event_); }
  ~SdEventHost() {
    detach();
    sd_event_unref(event_);
  }

  void attach() { adapter_.emplace(event_); }
  void detach() { adapter_.reset(); }
  void stop() { sd_event_exit(event_, 5); }

  void soon(std::function<void()> function) {
    sd_event_add_defer(
        event_, nullptr,
        [](sd_event_source*, void* data) {
          const std::unique_ptr<std::function<void()>> owned(
              static_cast<std::function<void()>*>(data));
          (*owned)();
          return 0;
        },
        new std::function<void()>(std::move(function)));
  }

  void run() {
    exitCode = adapter_->run();
    renew();
  }

  void runByItself() {
    exitCode = sd_event_loop(event_);
    adapter_->rethrow();
    renew();
  }

  void turn(std::chrono::milliseconds atMost) {
    sd_event_run(event_, static_cast<std::uint64_t>(atMost.count()) * 1000);
    if (adapter_) {
      adapter_->rethrow();
    }
  }

  int exitCode = 0;

 private:
  void renew() {
    const bool attached = adapter_.has_value();
    detach();
    sd_event_unref(event_);
    sd_event_new(&event_);
    if (attached) {
      attach();
    }
  }

  sd_event* event_ = nullptr;
  std::optional<Kelvo::Adapters::SdEvent> adapter_;
};
