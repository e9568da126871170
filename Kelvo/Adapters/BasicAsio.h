#pragma once

#include <memory>

#include "../Platform/EventLoop.h"

namespace Kelvo::Adapters {

/// This thread's loop in an `io_context`, which is run on this thread and on no other: `Asio` and
/// `BoostAsio` are of this template. Guest.h tells what adapters promise, but for this: Asio is
/// written for exceptions, so what a callback throws leaves the host's own `run` at once, and that
/// may be called again. A callback that turns the host itself is not served this loop meanwhile.
template <class IoContext, class StreamDescriptor>
class BasicAsio {
 public:
  /// Watches from now on, until it or the host is destroyed.
  explicit BasicAsio(IoContext& host) {
    const auto waiting = std::make_shared<Waiting>(host);
    waiting->wait();
    waiting_ = waiting;
  }
  BasicAsio(const BasicAsio&) = delete;
  BasicAsio& operator=(const BasicAsio&) = delete;
  ~BasicAsio() {
    if (const auto waiting = waiting_.lock()) {
      waiting->end();
    }
  }

 private:
  /// Owned by the handler that waits, and so by the host: it is gone when the host is.
  struct Waiting : std::enable_shared_from_this<Waiting> {
    explicit Waiting(IoContext& host)
        : loop(Platform::EventLoop::current()), descriptor(host, loop.fd()) {}
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;
    ~Waiting() { end(); }

    void wait() {
      descriptor.async_wait(StreamDescriptor::wait_read,
                            [self = this->shared_from_this()](const auto& error) {
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
    StreamDescriptor descriptor;
  };

  std::weak_ptr<Waiting> waiting_;
};

}  // namespace Kelvo::Adapters
