#include "tool/Run.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <utility>

#include "Kelvo/Platform/EventLoop.h"
#include "tool/Report.h"

namespace tool {

namespace {

using Clock = std::chrono::steady_clock;

sigset_t endingSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    sigaddset(&set, signal);
  }
  return set;
}

int blockAndWatchSignals() {
  const sigset_t set = endingSignals();
  sigprocmask(SIG_BLOCK, &set, nullptr);
  return ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

}  // namespace

void dieOf(int signal) {
  std::signal(signal, SIG_DFL);
  const sigset_t set = endingSignals();
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
  std::raise(signal);
  ::_exit(128 + signal);
}

Watch::Watch(int fd, std::function<void()> ready)
    : ready_(std::move(ready)), control_(Kelvo::Platform::getFdControl(this)) {
  control_->attach(fd);
}

Alarm::Alarm(std::function<void()> expired)
    : expired_(std::move(expired)), timer_(Kelvo::Platform::getTimer(this)) {}

Run::Run(Ending whenInterrupted)
    : whenInterrupted_(whenInterrupted), signals_(blockAndWatchSignals()) {
  struct stat status {};
  if (whenInterrupted == Ending::kIsSuccess && ::fstat(STDOUT_FILENO, &status) == 0 &&
      S_ISFIFO(status.st_mode)) {
    readerWatch_.emplace(STDOUT_FILENO, [this] { lookAtReader(); });
  }
}

Run::~Run() {
  signalWatch_.detach();
  ::close(signals_);
}

bool Run::until(const std::function<bool()>& done, double seconds, double interval) {
  constexpr unsigned kStepsATurn = 64;  // signals are taken also if nothing has to be waited for
  const auto begin = Clock::now();
  try {
    if (++steps_ % kStepsATurn == 0) {
      turn(0);
    }
    while (!ended_ && !done()) {
      const double passed = std::chrono::duration<double>(Clock::now() - begin).count();
      if (seconds > 0 && passed >= seconds) {
        return false;
      }
      const double left = seconds > 0 ? seconds - passed : -1;
      turn(interval > 0 && (left < 0 || interval < left) ? interval : left);
    }
  } catch (const OutputClosed&) {
    if (whenInterrupted_ == Ending::kIsFailure) {
      throw;
    }
    ended_ = true;
  }
  return true;
}

void Run::within(double seconds, const std::function<bool()>& done,
                 const std::function<std::string()>& late, double interval) {
  if (!until(done, seconds, interval)) {
    throw Failure(Exit::kTimeout, late());
  }
}

void Run::pause(double seconds) {
  if (seconds > 0) {
    until([] { return false; }, seconds);
  }
}

void Run::turn(double seconds) {
  const auto milliseconds = static_cast<std::int64_t>(std::ceil(std::min(seconds, 1e6) * 1000));
  Kelvo::Platform::EventLoop::current().runOnce(std::chrono::milliseconds(milliseconds));
}

void Run::takeSignal() {
  signalfd_siginfo info{};
  if (::read(signals_, &info, sizeof info) != sizeof info) {
    return;
  }
  if (info.ssi_signo == SIGINT && ::isatty(STDERR_FILENO) != 0) {  // which shows ^C
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, "\n", 1);
  }
  if (whenInterrupted_ == Ending::kIsFailure) {
    throw Interrupted{static_cast<int>(info.ssi_signo)};
  }
  ended_ = true;
}

void Run::lookAtReader() {
  pollfd pipe{STDOUT_FILENO, 0, 0};
  readerWatch_->detach();
  ended_ = ended_ || (::poll(&pipe, 1, 0) > 0 && (pipe.revents & POLLERR) != 0);
}

}  // namespace tool
