#pragma once

#include <chrono>

#include "Kelvo/Export.h"
#include "Kelvo/Platform/FdEventHandler.h"
#include "Kelvo/Platform/TimeoutHandler.h"
#include "Kelvo/Ptr.h"

/// @file
/// The event loop and its contract.
///
/// A loop belongs to one thread. Descriptors are watched through an `FdControl`, time through a
/// `Timer`; both call back their handler from inside a turn of the loop, never otherwise. In one
/// turn the loop asks the kernel once what is ready and delivers that, 64 descriptors at most. A
/// stop from another thread and a due timer are seen in the very next turn, however many
/// descriptors are ready.
///
/// **Descriptors**
///  - Readiness is level-triggered: what a callback leaves unread is reported again next turn, and
///    a listening socket with more clients waiting likewise. `attach` switches read interest on and
///    leaves the descriptor's flags alone.
///  - A turn makes at most one read and one write callback per descriptor, read first. Errors and
///    hang-ups arrive as a read event, so the last data is read before the end is seen.
///  - A callback is made only for what the kernel has reported in this same turn for this same
///    registration. Each event carries its registration's generation and is looked up right before
///    the call; it is dropped if the handler has detached or died, or if the descriptor's number
///    was closed and reused, earlier in the turn. A false event would be costly: a reader may take
///    an empty read for the end of a connection, and a blocking `accept` would hang the process.
///  - `detach` takes the descriptor out of the kernel's set, and the owner closes it afterwards. In
///    the other order a duplicate in a child process could keep reporting for ever.
///
/// **Deferred events**
///  - What a callback can do nothing about, such as a client to accept while no descriptor can be
///    opened, would be reported again at once and for ever. Only the handler knows, so it says so,
///    `deferReadEvent` or `deferWriteEvent`, and the event comes back after 1, 2, 4 ... up to
///    100 ms. The loop itself slows nothing down.
///
/// **Timers**
///  - Monotonic, in seconds as `double`, true below a millisecond. Arming replaces a pending
///    expiry; arming inside `timeout()` takes effect. What is armed during a turn expires in a
///    later one. A turn makes one `timeout` call at most, so between any two of them the kernel is
///    asked what else is ready.
///
/// **Callbacks**
///  - They may attach, detach, arm and destroy anything, themselves included, may stop the loop,
///    and may run turns of the same loop; after a nested turn the outer one drops the rest of its
///    batch, which is reported again. An owner that must not destroy a handler whose callback runs
///    hands its share to `FdEventHandler::keepWhileRunning`.
///  - An exception out of a callback is first shown to its handler's hook (`handleFdException`,
///    `handleTimeoutException`). If the hook returns false, the exception leaves `run`, `runOnce`
///    or `dispatch`. The loop stays usable and no other event is lost.
///
/// **Foreign loops**
///  - `fd()` is one descriptor that becomes readable when anything is due, timers included. A host
///    watches it for reading, level-triggered, and calls `dispatch()`. There is no state to prepare
///    before the host waits.
///
/// **Fork**
///  - A child that uses its parent's loop gets a `Kelvo::Exception`. Detaching, disarming and
///    destroying are allowed there and leave the parent's registrations alone.

namespace Kelvo::Platform {

class LoopCore;

/// One thread's event loop. Used on that thread only, except for `stop`.
class KELVO_API EventLoop {
 public:
  /// The calling thread's loop, made on first use and kept until the thread ends (the main thread's
  /// to the end of the process). Controls and timers that are released later are still safe to
  /// release.
  /// @throws Kelvo::Exception if the kernel refuses the descriptors it needs (three).
  static EventLoop& current();

  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  ~EventLoop();

  /// Turns until `stop` is called. A stop that was called while nothing ran ends it at once.
  void run();

  /// Makes `run` return after the turn at hand. From any thread, a callback or a signal handler. If
  /// an exception ends that turn and with it `run`, the next `run` returns at once.
  void stop() noexcept;

  /// One turn, which waits for at most `timeout` (for ever if negative, less long if a signal
  /// arrives). True when a callback was made.
  bool runOnce(std::chrono::milliseconds timeout);

  /// The descriptor for a foreign loop to watch. Owned by this loop; only ever to be polled.
  int fd() const noexcept;

  /// One turn without waiting. True when a callback was made.
  bool dispatch();

 private:
  EventLoop();

  friend Ptr<FdControl> getFdControl(FdEventHandler* handler);
  friend Ptr<Timer> getTimer(TimeoutHandler* handler, const FdEventHandler* unlessAttached);

  const Ptr<LoopCore> core_;
};

}  // namespace Kelvo::Platform
