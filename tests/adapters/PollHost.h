#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <utility>

#include "Kelvo/Adapters/Poll.h"

/// A plain poll, in a loop of the application's own.
class PollHost {
 public:
  void attach() { adapter_.emplace(); }
  void detach() { adapter_.reset(); }
  void stop() { stopped_ = true; }
  void soon(std::function<void()> function) { soon_.push_back(std::move(function)); }

  void run() {
    for (stopped_ = false; !stopped_;) {
      turn(std::chrono::milliseconds(-1));
    }
  }
  void runByItself() { run(); }

  void turn(std::chrono::milliseconds atMost) {
    pollfd entry{-1, 0, 0};
    if (adapter_) {
      entry = adapter_->entry();
    }
    poll(&entry, 1, soon_.empty() ? static_cast<int>(atMost.count()) : 0);
    if (!soon_.empty()) {
      const auto function = std::move(soon_.front());
      soon_.pop_front();
      function();
    }
    if (adapter_) {
      adapter_->dispatch(entry);
    }
  }

 private:
  std::optional<Kelvo::Adapters::Poll> adapter_;
  std::deque<std::function<void()>> soon_;
  bool stopped_ = false;
};
