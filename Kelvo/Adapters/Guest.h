#pragma once

#include <exception>
#include <utility>

#include "../Platform/EventLoop.h"

/// @file
/// Adapters let a foreign event loop, the host, carry this library's: servers and asynchronous
/// clients then live in an application that is built on GLib, Qt, sd-event, libuv, Asio or a plain
/// poll. An adapter watches the one descriptor of this thread's loop, level-triggered, and makes
/// one turn without waiting each time the host reports it readable; timers come through it too. It
/// makes one turn at a time, so that the host's own events get their turns under load.
///
/// What all adapters have in common:
///  - They belong to the thread that makes them, and the host is run on that thread.
///  - The adapter may be destroyed inside a callback that it delivers; what lives in the loop is
///    then just not served any more. It may outlive a host that is destroyed by its own rules, if
///    nothing but its destructor is called afterwards; QtCore may not.
///  - An exception out of a callback must not cross a host that is written in C. The adapter keeps
///    it, makes the host stop, and throws it from its own `run`. An application that runs the host
///    by its own means calls `rethrow` when the host returns. Until then there are no more turns,
///    so nothing is lost, and the host may be run again afterwards unless its own rules forbid it.
///  - `EventLoop::stop` ends `EventLoop::run`, not a host: use the host's own way to stop.

/// The event loop inside foreign ones.
namespace Kelvo::Adapters {

/// This thread's event loop as the guest of a foreign one: what adapters are made of.
class Guest {
 public:
  Guest() : loop_(Platform::EventLoop::current()) {}
  Guest(const Guest&) = delete;
  Guest& operator=(const Guest&) = delete;

  /// The descriptor to watch for reading, level-triggered.
  int fd() const noexcept { return loop_.fd(); }

  /// One turn, for a host that no exception may cross. False if one is kept: the host is to stop.
  bool dispatch() noexcept {
    if (failure_ == nullptr) {
      try {
        loop_.dispatch();
      } catch (...) {
        keep(std::current_exception());
      }
    }
    return failure_ == nullptr;
  }

  /// Whether an exception is kept.
  bool failed() const noexcept { return failure_ != nullptr; }

  /// Throws the exception that is kept, if there is one. The next turn is then possible again.
  void rethrow() {
    if (failed()) {
      std::rethrow_exception(std::exchange(failure_, nullptr));
    }
  }

 private:
  /// The first one, should turns within turns each fail.
  void keep(std::exception_ptr failure) noexcept {
    if (failure_ == nullptr) {
      failure_ = std::move(failure);
    }
  }

  Platform::EventLoop& loop_;
  std::exception_ptr failure_;
};

}  // namespace Kelvo::Adapters
