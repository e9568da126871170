#pragma once

#include <poll.h>

#include "../Platform/EventLoop.h"

namespace Kelvo::Adapters {

/// This thread's loop among the descriptors of an application that calls `poll` itself. Guest.h
/// tells what adapters promise, but for this: no C code stands between the application and the
/// callbacks, so what they throw leaves `dispatch`.
class Poll {
 public:
  Poll() : loop_(Platform::EventLoop::current()) {}

  /// For the array that is handed to `poll`. It stays the same; there is nothing to prepare and no
  /// time limit to compute.
  pollfd entry() const noexcept { return {loop_.fd(), POLLIN, 0}; }

  /// One turn, if `poll` has reported the entry. True when a callback was made.
  bool dispatch(const pollfd& entry) { return entry.revents != 0 && loop_.dispatch(); }

 private:
  Platform::EventLoop& loop_;
};

}  // namespace Kelvo::Adapters
