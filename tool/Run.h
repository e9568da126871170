#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "Kelvo/Platform/FdEventHandler.h"
#include "Kelvo/Platform/TimeoutHandler.h"
#include "Kelvo/Ptr.h"
#include "tool/Report.h"

namespace tool {

/// Thrown by a signal that ends a command before it is done.
struct Interrupted {
  int signal;
};

/// Ends the process by that signal, as a shell expects of an interrupted command.
[[noreturn]] void dieOf(int signal);

/// What a command does when nobody wants it any more: commands that run until they are interrupted
/// are done then, others have failed.
enum class Ending { kIsSuccess, kIsFailure };

/// One verb's time in the event loop, from `untilFinished` to `finish`. Takes Ctrl-C and its kin
/// as events; failures come out of `untilFinished` as exceptions, `Interrupted` and `OutputClosed`
/// included unless they are a success.
class Run : private Kelvo::Platform::FdEventHandler {
 public:
  explicit Run(Ending whenInterrupted);
  ~Run() override;

  void untilFinished();
  void finish();

 private:
  class ReaderWatch;

  void readFdEvent(int fd) override;

  const Ending whenInterrupted_;
  const int signals_;
  Kelvo::Ptr<Kelvo::Platform::FdControl> control_;
  std::unique_ptr<ReaderWatch> readerWatch_;
  bool finished_ = false;
};

/// A timer that calls a function.
class Alarm : private Kelvo::Platform::TimeoutHandler {
 public:
  explicit Alarm(std::function<void()> expired);

  void arm(double seconds) { timer_->arm(seconds); }
  void disarm() { timer_->disarm(); }

 private:
  void timeout() override { expired_(); }

  std::function<void()> expired_;
  Kelvo::Ptr<Kelvo::Platform::Timer> timer_;
};

/// Runs a step as often as it is wanted. A step that wants the next one gets it without recursion,
/// and without the loop; but the loop has a turn now and then, for signals.
class Pump {
 public:
  explicit Pump(std::function<void()> step) : step_(std::move(step)) {}
  void want();

 private:
  void run();

  const std::function<void()> step_;
  bool wanted_ = false;
  bool running_ = false;
  Alarm soon_{[this] { run(); }};
};

/// Something that happens unless it is disarmed in time. 0 seconds are for ever.
class Limit {
 public:
  Limit(double seconds, std::function<void()> passed)
      : seconds_(seconds), alarm_(std::move(passed)) {}

  void restart() {
    if (seconds_ > 0) {
      alarm_.arm(seconds_);
    }
  }
  void disarm() { alarm_.disarm(); }

 private:
  const double seconds_;
  Alarm alarm_;
};

/// The -t option at work: fails with exit status 4 unless disarmed in time.
class Deadline : public Limit {
 public:
  /// `late` makes the sentence.
  Deadline(double seconds, std::function<std::string()> late)
      : Limit(seconds, [late = std::move(late)] { throw Failure(Exit::kTimeout, late()); }) {}
};

}  // namespace tool
