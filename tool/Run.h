#pragma once

#include <functional>
#include <memory>
#include <optional>

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
/// as events; failures come out of `untilFinished` as exceptions.
class Run : private Kelvo::Platform::FdEventHandler {
 public:
  explicit Run(Ending whenInterrupted);
  ~Run() override;

  Exit untilFinished();
  void finish(Exit status);
  bool finished() const { return status_.has_value(); }

 private:
  class ReaderWatch;

  void readFdEvent(int fd) override;

  const Ending whenInterrupted_;
  const int signals_;
  Kelvo::Ptr<Kelvo::Platform::FdControl> control_;
  std::unique_ptr<ReaderWatch> readerWatch_;
  std::optional<Exit> status_;
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

/// The -t option at work: fails with exit status 4 unless disarmed in time. 0 seconds are for ever.
class Deadline {
 public:
  /// `late` makes the sentence.
  Deadline(double seconds, std::function<std::string()> late);

  void restart();
  void disarm() { alarm_.disarm(); }

 private:
  const double seconds_;
  Alarm alarm_;
};

}  // namespace tool
