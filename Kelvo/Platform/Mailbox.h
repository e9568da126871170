#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>

namespace Kelvo::Platform {

/// What reaches a loop from elsewhere: requests to stop, and functions to run. One descriptor is
/// readable while there is any. Shared by the loop and its remotes, and open while the loop lives.
class Mailbox {
 public:
  using Functions = std::list<std::function<void()>>;

  /// Throws if the kernel refuses the descriptor. A child's copy is never destroyed, as another
  /// thread of the parent may have been at work on it.
  static std::shared_ptr<Mailbox> make();
  Mailbox(const Mailbox&) = delete;
  Mailbox& operator=(const Mailbox&) = delete;

  int fd() const noexcept { return fd_; }
  bool inOwnerProcess() const noexcept;

  // From any thread. The first also from a signal handler, but only while the loop lives; the other
  // two are false, and do nothing, once it has ended and in a forked child.
  void requestStop() noexcept;
  bool stop() noexcept;
  bool post(std::function<void()>&& function);

  // On the loop's thread.
  void drainStopRequest() noexcept;
  bool consumeStop() noexcept;
  std::size_t waiting();
  Functions takeFirst();
  void close() noexcept;

 private:
  Mailbox();
  ~Mailbox();
  void signal(std::uint64_t units) noexcept;
  std::uint64_t readSignals() noexcept;

  const std::uint64_t process_;
  const pthread_t thread_;
  const int fd_;
  std::atomic<bool> stop_{false};  // asked for by this thread, or received; and not yet consumed
  std::mutex mutex_;
  bool open_ = true;
  Functions functions_;
};

}  // namespace Kelvo::Platform
