#pragma once

#include <functional>
#include <optional>
#include <string>

#include "Kelvo/Platform/FdEventHandler.h"
#include "Kelvo/Platform/TimeoutHandler.h"
#include "Kelvo/Ptr.h"

namespace tool {

/// Thrown by a signal that ends a command before it is done.
struct Interrupted {
  int signal;
};

/// Ends the process by that signal, as a shell expects of an interrupted command.
[[noreturn]] void dieOf(int signal);

/// Calls a function whenever a descriptor, which stays the caller's, is readable.
class Watch : private Kelvo::Platform::FdEventHandler {
 public:
  /// @throws Kelvo::Exception for what the kernel does not watch, such as files.
  Watch(int fd, std::function<void()> ready);
  ~Watch() override { detach(); }

  void detach() { control_->detach(); }

 private:
  void readFdEvent(int /*fd*/) override { ready_(); }

  const std::function<void()> ready_;
  Kelvo::Ptr<Kelvo::Platform::FdControl> control_;
};

/// A timer that calls a function.
class Alarm : private Kelvo::Platform::TimeoutHandler {
 public:
  explicit Alarm(std::function<void()> expired);

  void arm(double seconds) { timer_->arm(seconds); }
  /// 0 seconds are for ever.
  void limit(double seconds) { seconds > 0 ? arm(seconds) : disarm(); }
  void disarm() { timer_->disarm(); }

 private:
  void timeout() override { expired_(); }

  const std::function<void()> expired_;
  Kelvo::Ptr<Kelvo::Platform::Timer> timer_;
};

/// What a command does when nobody wants it any more: commands that run until they are interrupted
/// are done then, others have failed.
enum class Ending { kIsSuccess, kIsFailure };

/// One verb's time in the event loop. Takes Ctrl-C and its kin as events, and notices when the
/// reader of its results has gone. What callbacks throw comes out of `until`; so do `Interrupted`
/// and `OutputClosed`, unless they are a success.
class Run {
 public:
  explicit Run(Ending whenInterrupted);
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;
  ~Run();

  /// Turns the loop until the condition holds, or nobody wants the command any more; it is looked
  /// at after each turn, and in these intervals if they are given. False if the time (0: for ever)
  /// is over first.
  bool until(const std::function<bool()>& done, double seconds = 0, double interval = 0);
  /// The same, and a failure if the time is over first.
  void within(double seconds, const std::function<bool()>& done,
              const std::function<std::string()>& late, double interval = 0);
  void pause(double seconds);

  /// Nobody wants the command any more.
  bool ended() const { return ended_; }

 private:
  void takeSignal();
  void lookAtReader();
  void turn(double seconds);

  const Ending whenInterrupted_;
  const int signals_;
  Watch signalWatch_{signals_, [this] { takeSignal(); }};
  std::optional<Watch> readerWatch_;
  unsigned steps_ = 0;
  bool ended_ = false;
};

}  // namespace tool
