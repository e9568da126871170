#include "Kelvo/Platform/LoopTimer.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "Kelvo/Exception.h"
#include "Kelvo/Platform/CallbackFrame.h"

namespace Kelvo::Platform {

namespace {

constexpr double kLongestDelay = 4e9;  // seconds, over a century; more does not fit the clock

LoopCore::Time delay(double seconds) {
  if (std::isnan(seconds)) {
    throw Exception("Timer: the delay to arm with is not a number", false);
  }
  const double bounded = std::clamp(seconds, 0.0, kLongestDelay);
  return LoopCore::Time(static_cast<LoopCore::Time::rep>(std::ceil(bounded * 1e9)));
}

}  // namespace

LoopTimer::LoopTimer(Ptr<LoopCore> core, TimeoutHandler& handler,
                     const FdEventHandler* unlessAttached)
    : core_(std::move(core)), handler_(handler), unlessAttached_(unlessAttached) {
  if (unlessAttached_ != nullptr) {
    attachments_ = core_->watch(unlessAttached_, *this);
  }
}

LoopTimer::~LoopTimer() {
  if (unlessAttached_ != nullptr) {
    core_->unwatch(unlessAttached_, *this);
  }
  core_->cancel(*this);
}

void LoopTimer::arm(double seconds) {
  const auto deadline = LoopCore::now() + delay(seconds);
  withheld_ = false;
  core_->schedule(*this, deadline);
}

void LoopTimer::disarm() {
  withheld_ = false;
  core_->cancel(*this);
}

bool LoopTimer::expire() {
  if (attachments_ > 0) {
    withheld_ = true;
    return false;
  }
  runGuarded(
      handler_, Event::kTimeout, [](TimeoutHandler& handler) { handler.timeout(); },
      [](TimeoutHandler& handler) { return handler.handleTimeoutException(); });
  return true;  // this timer may be gone
}

void LoopTimer::attachmentsChanged(int by) {
  attachments_ += by;
  if (attachments_ == 0 && std::exchange(withheld_, false)) {
    core_->trySchedule(*this, deadline());
  }
}

}  // namespace Kelvo::Platform
