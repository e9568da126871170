#include "tool/Run.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <utility>

#include "Kelvo/Platform/EventLoop.h"

namespace tool {

using Kelvo::Platform::EventLoop;

namespace {

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

/// Notices that the reader of a pipe of results has gone, also while there is nothing to print.
class Run::ReaderWatch : private Kelvo::Platform::FdEventHandler {
 public:
  explicit ReaderWatch(Run& run) : run_(run), control_(Kelvo::Platform::getFdControl(this)) {
    struct stat status {};
    if (::fstat(STDOUT_FILENO, &status) == 0 && S_ISFIFO(status.st_mode)) {
      control_->attach(STDOUT_FILENO);
    }
  }

 private:
  void readFdEvent(int fd) override {
    pollfd pipe{fd, 0, 0};
    control_->detach();
    if (::poll(&pipe, 1, 0) > 0 && (pipe.revents & POLLERR) != 0) {
      run_.finish();
    }
  }

  Run& run_;
  Kelvo::Ptr<Kelvo::Platform::FdControl> control_;
};

Run::Run(Ending whenInterrupted)
    : whenInterrupted_(whenInterrupted),
      signals_(blockAndWatchSignals()),
      control_(Kelvo::Platform::getFdControl(this)) {
  control_->attach(signals_);
  if (whenInterrupted == Ending::kIsSuccess) {
    readerWatch_ = std::make_unique<ReaderWatch>(*this);
  }
}

Run::~Run() {
  control_->detach();
  ::close(signals_);
}

void Run::untilFinished() {
  try {
    while (!finished_) {
      EventLoop::current().run();
    }
  } catch (const OutputClosed&) {
    if (whenInterrupted_ == Ending::kIsFailure) {
      throw;
    }
  }
}

void Run::finish() {
  finished_ = true;
  EventLoop::current().stop();
}

void Run::readFdEvent(int fd) {
  signalfd_siginfo info{};
  if (::read(fd, &info, sizeof info) != sizeof info) {
    return;
  }
  if (info.ssi_signo == SIGINT && ::isatty(STDERR_FILENO) != 0) {  // which shows ^C
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, "\n", 1);
  }
  if (whenInterrupted_ == Ending::kIsFailure) {
    throw Interrupted{static_cast<int>(info.ssi_signo)};
  }
  finish();
}

void Pump::want() {
  wanted_ = true;
  if (!running_) {
    run();
  }
}

void Pump::run() {
  constexpr int kStepsATurn = 64;
  running_ = true;
  for (int steps = 0; std::exchange(wanted_, false); ++steps) {
    if (steps == kStepsATurn) {
      wanted_ = true;
      soon_.arm(0);
      break;
    }
    step_();
  }
  running_ = false;
}

Alarm::Alarm(std::function<void()> expired)
    : expired_(std::move(expired)), timer_(Kelvo::Platform::getTimer(this)) {}

}  // namespace tool
