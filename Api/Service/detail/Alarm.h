#pragma once

// Private.

#include <functional>
#include <utility>

#include "Kelvo/Platform/TimeoutHandler.h"
#include "Kelvo/Ptr.h"

namespace Tovik {

/// A timer that calls a function, which may destroy the alarm.
class Alarm final : public Kelvo::Platform::TimeoutHandler {
 public:
  explicit Alarm(std::function<void()> then) : then_(std::move(then)) {}

  void arm(double seconds) { timer_->arm(seconds); }
  void disarm() { timer_->disarm(); }
  void timeout() override { then_(); }

 private:
  const std::function<void()> then_;
  const Kelvo::Ptr<Kelvo::Platform::Timer> timer_ = Kelvo::Platform::getTimer(this);
};

}  // namespace Tovik
