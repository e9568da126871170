// arm -> due -> timeout, or, while the handler named by `unlessAttached` has a descriptor: arm ->
// due
// -> withheld -> that handler detaches -> due again -> timeout.
//
// Nobody polls for that: the core tells the timer of each attachment that the handler gains or
// loses, and a withheld timer goes back into the queue with its old deadline. Arming and disarming
// forget that it was withheld. The last expiry is kept for one purpose: a timer that is armed with
// nothing in its own callback must not take the whole processor.

#include "Kelvo/Platform/LoopTimer.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <utility>

#include "Kelvo/Exception.h"
#include "Kelvo/Platform/CallbackFrame.h"

namespace Kelvo::Platform {

namespace {

constexpr std::chrono::milliseconds kShortestPeriod(1);
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
  core_->schedule(*this, std::max(deadline, lastExpiry_ + kShortestPeriod));
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
  lastExpiry_ = LoopCore::now();
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
