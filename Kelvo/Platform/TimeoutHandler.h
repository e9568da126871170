#pragma once

#include "../Export.h"
#include "../Ptr.h"

namespace Kelvo::Platform {

class FdEventHandler;

/// Receives the expiries of a `Timer`, on the thread of the event loop that the timer belongs to.
/// A callback may do anything, destroying its own handler included.
class KELVO_API TimeoutHandler {
 public:
  TimeoutHandler(const TimeoutHandler&) = delete;
  TimeoutHandler& operator=(const TimeoutHandler&) = delete;
  virtual ~TimeoutHandler();

  /// The timer has expired. It is not pending any more; arming it here takes effect.
  virtual void timeout() = 0;

  /// Called when `timeout()` has thrown, from inside the catch, so that `std::current_exception()`
  /// is that exception; not called if the handler died meanwhile. True: dealt with, the loop goes
  /// on. False, the default: the exception leaves the loop.
  virtual bool handleTimeoutException();

 protected:
  TimeoutHandler() = default;
};

/// A one-shot timer on the monotonic clock. Releasing it disarms it.
class KELVO_API Timer : public Counted {
 public:
  /// Calls `timeout()` once, after `seconds`, which may be a fraction; exact below a millisecond.
  /// Replaces an expiry that is still pending. Zero or less: at the loop's next turn. A timer
  /// expires at most once a millisecond: an earlier expiry waits until then.
  /// @throws Kelvo::Exception if `seconds` is not a number, or if the kernel refuses; the timer is
  /// armed even so, and the loop tries again at its next turn.
  virtual void arm(double seconds) = 0;

  /// Drops a pending expiry, also one that is due already. Does nothing without one.
  virtual void disarm() = 0;
};

/// A fresh timer, bound to `handler` and to the calling thread's event loop; `handler` must outlive
/// it. With `unlessAttached`, an expiry is withheld while that handler has a descriptor attached to
/// the same loop: it is delivered at the first turn after the descriptor was detached, unless the
/// timer was armed again or disarmed in the meantime. That is what a client needs whose timer
/// stands for "try again": it never fires into a connection that works.
KELVO_API Ptr<Timer> getTimer(TimeoutHandler* handler,
                              const FdEventHandler* unlessAttached = nullptr);

}  // namespace Kelvo::Platform
