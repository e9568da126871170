#pragma once

#include <coroutine>
#include <exception>
#include <optional>
#include <utility>

#include "../../Kelvo/Platform/EventLoop.h"
#include "Proxy.h"

/// @file
/// Coroutines, for C++20:
///
///     Tovik::Task<> demo(Tovik::Proxy& lamp) {
///       auto outcome = co_await lamp.call(Tovik::object("command", "switch", "on", true), 500ms);
///       ...
///     }

namespace Tovik {

/// @cond INTERNAL
namespace Internal {

template <class T>
struct TaskResult {
  std::optional<T> value;
  void return_value(T result) { value = std::move(result); }
  T take() { return *std::move(value); }
};
template <>
struct TaskResult<void> {
  void return_void() {}
  void take() {}
};

}  // namespace Internal
/// @endcond

/// A coroutine that starts at once and runs in the loop. Another task gets its result with
/// `co_await`. A task that is dropped runs on to its end by itself. What it throws leaves through
/// the loop if nobody waits for it. So a proxy that a task waits for may be destroyed: the call
/// ends as lost.
template <class T = void>
class [[nodiscard]] Task {
 public:
  /// @cond INTERNAL
  struct promise_type;
  using Handle = std::coroutine_handle<promise_type>;

  struct promise_type : Internal::TaskResult<T> {
    std::coroutine_handle<> waiting = std::noop_coroutine();
    std::exception_ptr failure;
    bool isDropped = false;

    /// Goes on with the one who waits; the frame of a dropped task has nobody else to destroy it.
    struct Final {
      bool await_ready() noexcept { return false; }
      std::coroutine_handle<> await_suspend(Handle task) noexcept {
        const auto next = task.promise().waiting;
        if (task.promise().isDropped) {
          destroy(task);
        }
        return next;
      }
      void await_resume() noexcept {}
    };

    Task get_return_object() { return Task(Handle::from_promise(*this)); }
    std::suspend_never initial_suspend() noexcept { return {}; }
    Final final_suspend() noexcept { return {}; }
    void unhandled_exception() { failure = std::current_exception(); }
  };
  /// @endcond

  /// The task that `other` was.
  Task(Task&& other) noexcept : handle_(std::exchange(other.handle_, {})) {}
  /// Drops the task that it was.
  Task& operator=(Task other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~Task() {
    if (handle_ && handle_.done()) {
      destroy(handle_);
    } else if (handle_) {
      handle_.promise().isDropped = true;
    }
  }

  /// @cond INTERNAL
  bool await_ready() const noexcept { return handle_.done(); }
  void await_suspend(std::coroutine_handle<> waiting) noexcept {
    handle_.promise().waiting = waiting;
  }
  T await_resume() {
    if (auto failure = std::exchange(handle_.promise().failure, nullptr)) {
      std::rethrow_exception(failure);
    }
    return handle_.promise().take();
  }
  /// @endcond

 private:
  explicit Task(Handle handle) : handle_(handle) {}

  /// A failure that nobody has seen leaves through the loop.
  static void destroy(Handle task) {
    const auto failure = task.promise().failure;
    task.destroy();
    if (failure) {
      Kelvo::Platform::EventLoop::current().post([failure] { std::rethrow_exception(failure); });
    }
  }

  Handle handle_;
};

}  // namespace Tovik
