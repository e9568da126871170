#include "tests/faults/Injection.h"

#include <dlfcn.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string_view>

// The C library's own, under the names that its malloc functions have beside the public ones.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);
}

namespace Injection {

// Runs are made one after the other; only the thread of the run counts.
bool happened = false;
bool failedInRapidJson = false;
std::atomic<long> liveBlocks{0};

namespace {

bool isLibrary(const void* caller) {
  Dl_info object{};
  if (::dladdr(caller, &object) == 0) {
    return false;
  }
  std::string_view file = object.dli_fname;
  file.remove_prefix(file.rfind('/') + 1);
  return file.rfind("libTovik", 0) == 0 || file.rfind("libKelvo", 0) == 0;
}

Fault planned;

/// Counts a call; the error that it is to fail with, or 0.
int count(Kind& kind) {
  if (++kind.count != planned.occurrence || kind.name != planned.call) {
    return 0;
  }
  happened = true;
  return planned.error;
}

bool allocationFails(const void* caller) {
  if (!counting || count(kinds().back()) == 0) {
    return false;
  }
  failedInRapidJson = isLibrary(caller);  // everything else in the libraries uses operator new
  errno = ENOMEM;
  return true;
}

int before(Faults::Call call, std::size_t size, const void* caller) {
  if (!counting || !isLibrary(caller)) {
    return 0;
  }
  const auto kind = std::find_if(kinds().begin(), kinds().end(), [&](const Kind& each) {
    return each.call == call && (each.operation == 0 || each.operation == size);
  });
  return kind == kinds().end() ? 0 : count(*kind);
}

}  // namespace

/// They are there from the start, so that counting allocates nothing.
std::vector<Kind>& kinds() {
  using Faults::Call;
  static const std::vector<int> epollCtl = {EBADF,  EEXIST, EINVAL, ELOOP,
                                            ENOENT, ENOMEM, ENOSPC, EPERM};
  static auto& all = *new std::vector<Kind>{
      {"socket",
       Call::kSocket,
       {EACCES, EAFNOSUPPORT, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPROTONOSUPPORT}},
      {"bind", Call::kBind, {EACCES, EADDRINUSE, EADDRNOTAVAIL, EBADF, EINVAL, ENOMEM, ENOTSOCK}},
      {"listen", Call::kListen, {EADDRINUSE, EBADF, ENOTSOCK, EOPNOTSUPP}},
      {"accept",
       Call::kAccept,
       {EAGAIN, EBADF, ECONNABORTED, EFAULT, EINTR, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM,
        ENOTSOCK, EOPNOTSUPP, EPERM, EPROTO}},
      {"connect",
       Call::kConnect,
       {EACCES, EPERM, EADDRINUSE, EAFNOSUPPORT, EAGAIN, EALREADY, EBADF, ECONNREFUSED, EFAULT,
        EINTR, EISCONN, ENOTSOCK, EPROTOTYPE, ETIMEDOUT}},
      {"getsockopt", Call::kGetsockopt, {EBADF, EFAULT, EINVAL, ENOPROTOOPT, ENOTSOCK}},
      {"F_GETFL", Call::kGetFl, {EBADF, EINTR, EINVAL, EPERM}},
      {"F_SETFL", Call::kSetFl, {EBADF, EINTR, EINVAL, EPERM}},
      {"read", Call::kRead, {EAGAIN, EBADF, ECONNRESET, EFAULT, EINTR, EINVAL, EIO, ENOMEM}},
      {"write",
       Call::kWrite,
       {EAGAIN, EBADF, ECONNRESET, EDESTADDRREQ, EFAULT, EFBIG, EINTR, EINVAL, EIO, EMSGSIZE,
        ENOBUFS, ENOMEM, ENOSPC, EPERM, EPIPE}},
      {"close", Call::kClose, {EBADF, EDQUOT, EINTR, EIO, ENOSPC}},
      {"epoll_create1", Call::kEpollCreate, {EINVAL, EMFILE, ENFILE, ENOMEM}},
      {"EPOLL_CTL_ADD", Call::kEpollCtl, epollCtl, EPOLL_CTL_ADD},
      {"EPOLL_CTL_MOD", Call::kEpollCtl, epollCtl, EPOLL_CTL_MOD},
      {"EPOLL_CTL_DEL", Call::kEpollCtl, epollCtl, EPOLL_CTL_DEL},
      {"epoll_wait", Call::kEpollWait, {EBADF, EFAULT, EINTR, EINVAL}},
      {"eventfd", Call::kEventfd, {EINVAL, EMFILE, ENFILE, ENODEV, ENOMEM}},
      {"timerfd_create", Call::kTimerfdCreate, {EINVAL, EMFILE, ENFILE, ENODEV, ENOMEM, EPERM}},
      {"timerfd_settime", Call::kTimerfdSettime, {EBADF, ECANCELED, EFAULT, EINVAL}},
      {"poll", Call::kPoll, {EFAULT, EINTR, EINVAL, ENOMEM}},
      {"malloc", Call::kNote, {ENOMEM}},  // the last; no call that the interposer sees
  };
  return all;
}

void start(const Fault& fault) {
  Faults::setHook(before);
  { const Faults::Trace first; }  // takes what the interposer takes once in a thread
  planned = fault;
  happened = failedInRapidJson = false;
  for (Kind& kind : kinds()) {
    kind.count = 0;
  }
  counting = true;
}

}  // namespace Injection

extern "C" {

void* malloc(std::size_t size) noexcept {
  void* const block =
      Injection::allocationFails(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
  Injection::liveBlocks += block != nullptr ? 1 : 0;
  return block;
}

void* calloc(std::size_t count, std::size_t size) noexcept {
  void* const block = Injection::allocationFails(__builtin_return_address(0))
                          ? nullptr
                          : __libc_calloc(count, size);
  Injection::liveBlocks += block != nullptr ? 1 : 0;
  return block;
}

void* realloc(void* old, std::size_t size) noexcept {
  if (Injection::allocationFails(__builtin_return_address(0))) {
    return nullptr;
  }
  void* const block = __libc_realloc(old, size);
  Injection::liveBlocks += (block != nullptr ? 1 : 0) - (old != nullptr ? 1 : 0);
  return block;
}

void free(void* block) noexcept {
  Injection::liveBlocks -= block != nullptr ? 1 : 0;
  __libc_free(block);
}

}  // extern "C"
