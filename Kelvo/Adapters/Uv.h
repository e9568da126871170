#pragma once

#include <uv.h>

#include <memory>

#include "../Exception.h"
#include "Guest.h"

namespace Kelvo::Adapters {

/// This thread's loop in a libuv loop. Guest.h tells what adapters promise. Like every handle of
/// libuv it keeps `uv_run` going while it lives, and after it was destroyed the host has to turn
/// once more before `uv_loop_close` succeeds. A host may also close every handle that it finds, by
/// `uv_walk`. The adapter must then live until the host has turned once more, since libuv still
/// uses its handle; the host itself may be closed before the adapter is destroyed.
class Uv {
 public:
  /// @throws Kelvo::Exception if libuv refuses.
  explicit Uv(uv_loop_t* host) : host_(host), guest_(std::make_shared<Guest>()) {
    auto handle = std::make_unique<Handle>();
    handle->guest = guest_;
    handle->poll.data = handle.get();
    check(uv_poll_init(host, &handle->poll, guest_->fd()));
    handle_ = handle.release();  // from here on libuv gives it back when it is closed
    if (const int error = uv_poll_start(&handle_->poll, UV_READABLE, &ready); error < 0) {
      close();
      check(error);
    }
  }
  Uv(const Uv&) = delete;
  Uv& operator=(const Uv&) = delete;
  ~Uv() {
    if (uv_is_closing(reinterpret_cast<uv_handle_t*>(&handle_->poll)) != 0) {
      delete handle_;  // the host has closed it, and turned since
    } else {
      close();
    }
  }

  /// Runs the host until it is stopped, with the result of `uv_run`; or throws what a callback
  /// throws, and may be called again after that.
  int run() {
    const auto guest = guest_;  // a callback may destroy this adapter
    const int result = uv_run(host_, UV_RUN_DEFAULT);
    guest->rethrow();
    return result;
  }

  /// For applications that run the host themselves: to be called when `uv_run` returns.
  void rethrow() { guest_->rethrow(); }

 private:
  struct Handle {
    uv_poll_t poll{};
    std::shared_ptr<Guest> guest;
  };

  static void ready(uv_poll_t* poll, int /*status*/, int /*events*/) {
    uv_loop_t* host = poll->loop;
    const auto guest = static_cast<Handle*>(poll->data)->guest;
    if (!guest->dispatch()) {
      uv_stop(host);
    }
  }

  void close() {
    uv_close(reinterpret_cast<uv_handle_t*>(&handle_->poll),
             [](uv_handle_t* handle) { delete static_cast<Handle*>(handle->data); });
  }

  static void check(int result) {
    if (result < 0) {
      throw Exception(uv_strerror(result), true);
    }
  }

  uv_loop_t* const host_;
  const std::shared_ptr<Guest> guest_;
  Handle* handle_ = nullptr;
};

}  // namespace Kelvo::Adapters
