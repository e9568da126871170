#pragma once

namespace Kelvo::Platform {

/// A callback in progress. Handlers may die inside their own callbacks; a handler's destructor
/// calls `forget`, and the frame then tells the loop that nobody is left to ask about an exception.
template <class Handler>
class Running {
 public:
  explicit Running(Handler& handler) noexcept : handler_(&handler), outer_(innermost_) {
    innermost_ = this;
  }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;
  ~Running() { innermost_ = outer_; }

  /// The handler, or null if it has died since.
  Handler* survivor() const noexcept { return handler_; }

  static void forget(const Handler* dead) noexcept {
    for (Running* frame = innermost_; frame != nullptr; frame = frame->outer_) {
      if (frame->handler_ == dead) {
        frame->handler_ = nullptr;
      }
    }
  }

 private:
  Handler* handler_;
  Running* const outer_;
  static inline thread_local Running* innermost_ = nullptr;
};

/// Makes one callback; an exception is shown to the handler's hook and leaves unless that deals
/// with it. Nothing of the loop is held meanwhile, so leaving needs no clean-up.
template <class Handler, class Callback, class Hook>
void runGuarded(Handler& handler, Callback callback, Hook hook) {
  const Running<Handler> running(handler);
  try {
    callback(handler);
  } catch (...) {
    Handler* survivor = running.survivor();
    if (survivor == nullptr || !hook(*survivor)) {
      throw;
    }
  }
}

}  // namespace Kelvo::Platform
