#pragma once

#include <cxxabi.h>

#include <cstdint>
#include <memory>
#include <utility>

namespace Kelvo::Platform {

/// What a callback is made for.
enum class Event : std::uint8_t { kRead, kWrite, kTimeout };

/// A callback in progress. The frames of a thread form a chain from the innermost callback
/// outwards: a callback may turn the loop, and that turn may call the same handler again. Handlers
/// may die inside their own callbacks; a handler's destructor calls `forget`, and the frame then
/// tells the loop that nobody is left to ask about an exception.
template <class Handler>
class CallbackFrame {
 public:
  CallbackFrame(Handler& handler, Event event) noexcept
      : handler_(&handler), outer_(innermost_), event_(event) {
    innermost_ = this;
  }
  CallbackFrame(const CallbackFrame&) = delete;
  CallbackFrame& operator=(const CallbackFrame&) = delete;
  /// What is kept goes after the frame has left the chain, so its destructors find no trace of it.
  ~CallbackFrame() { innermost_ = outer_; }

  Handler* handlerIfAlive() const noexcept { return handler_; }
  bool deferred() const noexcept { return deferred_; }

  static void forget(const Handler* dead) noexcept {
    for (CallbackFrame* frame = innermost_; frame != nullptr; frame = frame->outer_) {
      if (frame->handler_ == dead) {
        frame->handler_ = nullptr;
      }
    }
  }

  /// Keeps what owns the handler until the handler's outermost frame ends. One owner is enough, so
  /// this takes no memory.
  static void keep(const Handler* handler, std::shared_ptr<const void> owner) noexcept {
    CallbackFrame* outermost = nullptr;
    for (CallbackFrame* frame = innermost_; frame != nullptr; frame = frame->outer_) {
      outermost = frame->handler_ == handler ? frame : outermost;
    }
    if (outermost != nullptr && outermost->owner_ == nullptr) {
      outermost->owner_ = std::move(owner);
    }
  }

  /// The handler's innermost callback for `event` cannot deal with it now.
  static void defer(const Handler* handler, Event event) noexcept {
    for (CallbackFrame* frame = innermost_; frame != nullptr; frame = frame->outer_) {
      if (frame->handler_ == handler && frame->event_ == event) {
        frame->deferred_ = true;
        return;
      }
    }
  }

 private:
  std::shared_ptr<const void> owner_;
  Handler* handler_;
  CallbackFrame* const outer_;
  const Event event_;
  bool deferred_ = false;
  static inline thread_local CallbackFrame* innermost_ = nullptr;
};

/// Makes one callback; an exception is shown to the handler's hook and leaves unless that deals
/// with it. Nothing of the loop is held meanwhile, so leaving needs no clean-up. True if the
/// handler has deferred the event.
template <class Handler, class Callback, class Hook>
bool runGuarded(Handler& handler, Event event, Callback callback, Hook hook) {
  const CallbackFrame<Handler> frame(handler, event);
  try {
    callback(handler);
  } catch (const abi::__forced_unwind&) {
    throw;  // the thread ends: this is no exception, and cannot be dealt with
  } catch (...) {
    Handler* alive = frame.handlerIfAlive();
    if (alive == nullptr || !hook(*alive)) {
      throw;
    }
  }
  return frame.deferred();
}

}  // namespace Kelvo::Platform
