#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <memory>

#include "../Platform/EventLoop.h"

namespace Kelvo::Adapters {

/// This thread's loop in an `asio::io_context`, which is run on this thread and on no other.
/// Guest.h tells what adapters promise, but for this: Asio is written for exceptions, so what a
/// callback throws leaves the host's own `run` at once, and that may be called again.
class Asio {
 public:
  /// Watches from now on, until it is destroyed.
  explicit Asio(asio::io_context& host) : waiting_(std::make_shared<Waiting>(host)) {
    waiting_->wait();
  }
  Asio(const Asio&) = delete;
  Asio& operator=(const Asio&) = delete;
  ~Asio() { waiting_->end(); }

 private:
  /// Shared with the handler that waits, which the host may keep a little longer.
  struct Waiting : std::enable_shared_from_this<Waiting> {
    explicit Waiting(asio::io_context& host)
        : loop(Platform::EventLoop::current()), descriptor(host, loop.fd()) {}
    ~Waiting() { end(); }

    void wait() {
      descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                            [self = shared_from_this()](const asio::error_code& error) {
                              if (!error && self->descriptor.is_open()) {
                                self->turn();
                              }
                            });
    }

    /// A callback may have ended this; waiting then fails at once, and quietly.
    void turn() {
      try {
        loop.dispatch();
      } catch (...) {
        wait();
        throw;
      }
      wait();
    }

    /// The descriptor is the loop's, and not to be closed.
    void end() {
      if (descriptor.is_open()) {
        descriptor.release();
      }
    }

    Platform::EventLoop& loop;
    asio::posix::stream_descriptor descriptor;
  };

  const std::shared_ptr<Waiting> waiting_;
};

}  // namespace Kelvo::Adapters
