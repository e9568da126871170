// The program's definitions of clock_gettime and timerfd_settime, which the dynamic linker takes
// before the C library's, for calls out of the shared libraries too.

#include "tests/model/VirtualClock.h"

#include <poll.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <ctime>

namespace {

// One loop has one timer. The clock starts away from zero, as a real one has.
std::chrono::nanoseconds current = std::chrono::hours(1);
int timer = -1;
std::chrono::nanoseconds deadline{0};  // zero: disarmed

void setKernelTimer(long nanoseconds) {
  itimerspec setting{};
  setting.it_value.tv_nsec = nanoseconds;
  ::syscall(SYS_timerfd_settime, timer, 0, &setting, nullptr);
}

/// The kernel's interrupt may come a moment later than the call, so wait for it.
void applyDeadline() {
  if (deadline.count() == 0 || deadline > current) {
    return setKernelTimer(0);
  }
  setKernelTimer(1);
  pollfd query{timer, POLLIN, 0};
  ::poll(&query, 1, -1);
}

#ifdef SYS_clock_gettime64  // on 32-bit machines, the call with this timespec
constexpr long kClockGettime = SYS_clock_gettime64;
#else
constexpr long kClockGettime = SYS_clock_gettime;
#endif

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
  if (clock != CLOCK_MONOTONIC) {
    return static_cast<int>(::syscall(kClockGettime, clock, time));
  }
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(current);
  time->tv_sec = seconds.count();
  time->tv_nsec = static_cast<long>((current - seconds).count());
  return 0;
}

extern "C" int timerfd_settime(int fd, int /*flags*/, const itimerspec* setting,
                               itimerspec* /*old*/) noexcept {
  timer = fd;
  deadline = std::chrono::seconds(setting->it_value.tv_sec) +
             std::chrono::nanoseconds(setting->it_value.tv_nsec);
  applyDeadline();
  return 0;
}

namespace VirtualClock {

std::chrono::nanoseconds now() {
  return current;
}

void advance(std::chrono::nanoseconds by) {
  current += by;
  if (timer >= 0) {
    applyDeadline();
  }
}

}  // namespace VirtualClock
