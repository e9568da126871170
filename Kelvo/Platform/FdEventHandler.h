#pragma once

#include <memory>

#include "../Export.h"
#include "../Ptr.h"

namespace Kelvo::Platform {

/// Receives the readiness of descriptors that an `FdControl` watches for it, on the thread of the
/// event loop that the control belongs to. EventLoop.h holds the contract: what is delivered, when,
/// and what a callback may do (in short: anything, destroying its own handler included).
class KELVO_API FdEventHandler {
 public:
  FdEventHandler(const FdEventHandler&) = delete;
  FdEventHandler& operator=(const FdEventHandler&) = delete;
  virtual ~FdEventHandler();

  /// `fd` can be read without waiting, or has an error or hang-up that reading will show. A
  /// listening socket has a client to accept.
  virtual void readFdEvent(int fd) = 0;

  /// `fd` can be written without waiting. Comes only while write interest is on.
  virtual void writeFdEvent(int fd);

  /// Called when one of the two callbacks above has thrown, from inside the catch, so that
  /// `std::current_exception()` is that exception; not called if the handler died meanwhile. True:
  /// dealt with, the loop goes on. False, the default: the exception leaves the loop.
  virtual bool handleFdException(int fd);

  /// For the owner of this handler: lets it drop the handler at any time, also inside the handler's
  /// own callback, or in a turn that the callback runs. If the loop is running a callback of this
  /// handler on this thread, `owner`, a share in what owns the handler, is held until the outermost
  /// such callback has returned or thrown; otherwise nothing happens. Takes no memory. A second
  /// call during the same callback has nothing to add, since one share keeps the handler alive.
  void keepWhileRunning(std::shared_ptr<const void> owner) noexcept;

 protected:
  FdEventHandler() = default;

  /// For `readFdEvent` and `writeFdEvent` respectively, when they cannot deal with the event for a
  /// reason that lasts, such as a limit that is reached or a record that the socket never takes.
  /// The event is reported again after 1 ms, and then after twice as long each time, up to 100 ms.
  /// A callback that does not defer starts over, and so does attaching, detaching and, for writing,
  /// switching write interest off and on. Called elsewhere these do nothing.
  ///
  /// The kernel reports errors and hang-ups unasked, so while a read event is deferred it is asked
  /// for nothing, and write events wait as well.
  /// @{
  void deferReadEvent() noexcept;
  void deferWriteEvent() noexcept;
  /// @}
};

/// One handler's registration with one event loop: watches at most one descriptor. It does not own
/// the descriptor; its owner calls `detach` and then closes it, in this order. Releasing an
/// attached control detaches it.
class KELVO_API FdControl : public Counted {
 public:
  /// Switches write-readiness events on or off; off after `attach`. Setting what is set already
  /// costs no system call. Without a descriptor it does nothing.
  /// @throws Kelvo::Exception if the kernel refuses.
  virtual void setWriteInterest(bool wanted) = 0;

  /// Watches `fd` for reading, instead of any descriptor watched so far. The descriptor's own flags
  /// stay as they are. `fd` must not be attached elsewhere in the same loop.
  /// @throws Kelvo::Exception if the kernel refuses; nothing is attached then.
  virtual void attach(int fd) = 0;

  /// The attached descriptor, or -1.
  virtual int fd() const = 0;

  /// Stops watching. No event that the kernel has reported already is delivered any more. Never
  /// fails; without a descriptor it does nothing.
  virtual void detach() = 0;
};

/// A fresh control, bound to `handler` and to the calling thread's event loop. `handler` must
/// outlive the control's attachment, and the control is used on this thread only.
KELVO_API Ptr<FdControl> getFdControl(FdEventHandler* handler);

}  // namespace Kelvo::Platform
