#pragma once

#include <chrono>

// The monotonic clock of the program that links this in, for the libraries too: it stands still
// until it is told to go on, and a timer of the kernel (timerfd) expires by it. So nothing waits,
// hours pass in no time, and a run can be repeated exactly.

namespace VirtualClock {

std::chrono::nanoseconds now();

/// Lets time pass; what is due by then is readable when this returns.
void advance(std::chrono::nanoseconds by);

}  // namespace VirtualClock
