#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

#include "../Export.h"
#include "../Ptr.h"
#include "FdEventHandler.h"
#include "TimeoutHandler.h"

/// @file
/// The event loop and its contract.
///
/// A loop belongs to one thread. Descriptors are watched through an `FdControl`, time through a
/// `Timer`; both call back their handler from inside a turn of the loop, never otherwise. In one
/// turn the loop asks the kernel once what is ready and delivers that, 64 descriptors at most. A
/// stop, functions from other threads and a due timer are seen in the very next turn, however many
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
///  - An event that a callback cannot deal with now, such as a client to accept while no
///    descriptor is left, would be reported again at once, for ever. Only the handler knows that:
///    it calls `deferReadEvent` or `deferWriteEvent`, and the event comes back after 1, 2, 4 ... up
///    to 100 ms. The loop delays nothing by itself.
///
/// **Timers**
///  - Monotonic, in seconds as `double`, exact below a millisecond; zero and less mean the next
///    turn. One timer expires at most once a millisecond. Arming replaces a pending expiry; arming
///    inside `timeout()` takes effect. What is armed during a turn expires in a later one. A turn
///    makes one `timeout` call at most, so between any two of them the kernel is asked what else is
///    ready.
///
/// **Callbacks**
///  - They may attach, detach, arm and destroy anything, themselves included, may stop the loop,
///    and may run turns of the same loop. After a nested turn, the outer turn discards its
///    remaining events; they are reported again. An owner that must not destroy a handler whose
///    callback runs hands its share to `FdEventHandler::keepWhileRunning`.
///  - An exception out of a callback is first shown to its handler's hook (`handleFdException`,
///    `handleTimeoutException`). If the hook returns false, the exception leaves `run`, `runOnce`
///    or `dispatch`. The loop stays usable and no other event is lost.
///
/// **Foreign loops**
///  - `fd()` is one descriptor that becomes readable when anything is due, timers included. A host
///    watches it for reading, level-triggered, and calls `dispatch()`. There is no state to prepare
///    before the host waits.
///
/// **Other threads**
///  - `post` brings a function to the loop's thread, for example what a long piece of work on
///    another thread has found out. Functions run in a later turn, in the order in which they were
///    posted, at most 64 a turn. An exception out of one leaves the turn, and the others stay
///    queued. A stop does not wait for them: what has not been run is for the next `run`.
///  - A thread that may outlast the loop holds a `Remote`, which tells whether the loop still
///    lives. Functions that were accepted and not run when the loop ends are destroyed there,
///    unrun, on its thread.
///  - Counted handles (`Ptr`) that such a function shares with another thread need
///    `ThreadControl::tsp_`.
///
/// **Fork**
///  - A child that uses its parent's loop gets a `Kelvo::Exception`, however it was forked.
///    Detaching, disarming and destroying are allowed there and leave the parent's registrations
///    alone. `renewAfterFork` gives it a loop of its own.

/// The event loop, and the debug channels.
namespace Kelvo::Platform {

class LoopCore;
class Mailbox;

/// One thread's event loop. Used on that thread only, except for `stop` and `post`.
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

  /// For a forked child, which a daemon is too: gives the calling thread a fresh loop in place of
  /// its parent's. References to the `EventLoop` stay valid; controls, timers and remotes that were
  /// made before belong to the old loop and stay refused. To be called before the child uses the
  /// loop or starts threads. Without a parent's loop on this thread it does nothing.
  /// @throws Kelvo::Exception if the kernel refuses the descriptors; the old loop then stays.
  static void renewAfterFork();

  /// Turns until `stop` is called. Returns at once if that was called while nothing ran.
  void run();

  /// Makes `run` return after the current turn. From any thread, a callback or a signal handler. If
  /// an exception ends that turn and with it `run`, the next `run` returns at once.
  void stop() noexcept;

  /// Has `function` run on the loop's thread. From any thread while the loop lives, also from a
  /// function that was posted; not from a signal handler.
  /// @throws Kelvo::Exception if `function` is empty, and in a forked child of the loop's process.
  void post(std::function<void()> function);

  /// Reaches the loop from threads that may outlast it. Copies are cheap, and each may be used on
  /// any thread; the loop's descriptor for this stays open until the last one has gone.
  class KELVO_API Remote {
   public:
    /// As `EventLoop::post`. False, and `function` is not run, if the loop has ended, or in a
    /// forked child.
    bool post(std::function<void()> function) const;

    /// As `EventLoop::stop`, but not from a signal handler. False if the loop has ended, or in a
    /// forked child.
    bool stop() const noexcept;

   private:
    friend class EventLoop;
    explicit Remote(std::shared_ptr<Mailbox> mailbox) noexcept;

    std::shared_ptr<Mailbox> mailbox_;
  };

  /// Called on the loop's thread.
  Remote remote() const;

  /// One turn, which waits for at most `timeout`, for ever if negative; a signal ends the wait.
  /// True when a callback was made.
  bool runOnce(std::chrono::milliseconds timeout);

  /// The descriptor for a foreign loop to watch. Owned by this loop; only ever to be polled.
  int fd() const noexcept;

  /// One turn without waiting. True when a callback was made.
  bool dispatch();

 private:
  EventLoop();

  friend Ptr<FdControl> getFdControl(FdEventHandler* handler);
  friend Ptr<Timer> getTimer(TimeoutHandler* handler, const FdEventHandler* unlessAttached);

  Ptr<LoopCore> core_;
  std::vector<Ptr<LoopCore>> inherited_;  // of ancestors, whose turns may be under way
};

}  // namespace Kelvo::Platform
