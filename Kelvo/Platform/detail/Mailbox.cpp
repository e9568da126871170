// post or stop, on any thread -> the descriptor is readable -> the loop's turn takes a stop and the
// first functions.
//
// The descriptor counts: each request to stop adds kStop, and kPosted stands for "functions wait".
// That one is there exactly while the list is not empty, so a turn within a turn and a foreign loop
// see what the outer turn has not come to yet. Both sides change list and count under the mutex.
// A request to stop takes no mutex, for the sake of signal handlers.

#include "Kelvo/Platform/detail/Mailbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "Kelvo/Exception.h"
#include "Kelvo/Platform/detail/ProcessEpoch.h"

namespace Kelvo::Platform {

namespace {

constexpr std::uint64_t kPosted = 1;
constexpr std::uint64_t kStop = std::uint64_t{1} << 32;

}  // namespace

std::shared_ptr<Mailbox> Mailbox::make() {
  return {new Mailbox, [](Mailbox* mailbox) {
            if (mailbox->inOwnerProcess()) {
              delete mailbox;
            } else {
              ::close(mailbox->fd_);
            }
          }};
}

Mailbox::Mailbox()
    : process_(processEpoch()),
      thread_(pthread_self()),
      fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (fd_ < 0) {
    const std::string reason = std::strerror(errno);
    throw Exception("EventLoop: making a descriptor of its own failed: " + reason, true);
  }
}

Mailbox::~Mailbox() {
  ::close(fd_);
}

bool Mailbox::inOwnerProcess() const noexcept {
  return processEpoch() == process_;
}

// --- from any thread ---

// From another thread the request travels through the descriptor alone. A flag as well could be
// seen first, and the loop's thread could end, and the loop with it, while this call still uses it.
void Mailbox::requestStop() noexcept {
  if (!inOwnerProcess()) {
    return;  // a signal handler that a forked child has inherited: the parent goes on
  }
  if (pthread_equal(pthread_self(), thread_) != 0) {
    stop_.store(true, std::memory_order_relaxed);
  }
  signal(kStop);
}

bool Mailbox::stop() noexcept {
  if (!inOwnerProcess()) {
    return false;
  }
  const std::lock_guard lock(mutex_);
  if (open_) {
    requestStop();
  }
  return open_;
}

bool Mailbox::post(std::function<void()>&& function) {
  if (!function) {
    throw Exception("EventLoop: an empty function cannot be posted", false);
  }
  if (!inOwnerProcess()) {
    return false;
  }
  Functions one;
  one.push_back(std::move(function));
  const std::lock_guard lock(mutex_);
  if (!open_) {
    return false;
  }
  if (functions_.empty()) {
    signal(kPosted);
  }
  functions_.splice(functions_.end(), one);
  return true;
}

void Mailbox::signal(std::uint64_t units) const noexcept {
  const int callersErrno = errno;
  [[maybe_unused]] const auto written = ::write(fd_, &units, sizeof units);
  errno = callersErrno;
}

// --- on the loop's thread ---

void Mailbox::drainStopRequest() noexcept {
  if (inOwnerProcess() && readSignals() % kStop != 0) {
    signal(kPosted);
  }
}

std::uint64_t Mailbox::readSignals() noexcept {
  std::uint64_t signals = 0;
  if (::read(fd_, &signals, sizeof signals) > 0 && signals >= kStop) {
    stop_.store(true, std::memory_order_relaxed);
  }
  return signals;
}

bool Mailbox::consumeStop() noexcept {
  if (!stop_.load(std::memory_order_relaxed)) {
    return false;
  }
  drainStopRequest();  // the same request, if it has not woken the loop yet
  stop_.store(false, std::memory_order_relaxed);
  return true;
}

std::size_t Mailbox::waiting() {
  const std::lock_guard lock(mutex_);
  return functions_.size();
}

Mailbox::Functions Mailbox::takeFirst() {
  Functions first;
  const std::lock_guard lock(mutex_);
  first.splice(first.end(), functions_, functions_.begin());
  if (functions_.empty()) {
    readSignals();
  }
  return first;
}

/// What has not been run goes after the lock has: a function's destructor may post.
void Mailbox::close() noexcept {
  if (!inOwnerProcess()) {
    return;
  }
  Functions unrun;
  const std::lock_guard lock(mutex_);
  open_ = false;
  functions_.swap(unrun);
}

}  // namespace Kelvo::Platform
