// The interposed functions. The dynamic linker takes a test program's definitions before the C
// library's, for calls out of the shared libraries too; each goes on to the next definition.

#undef _FORTIFY_SOURCE  // whose headers define some of these functions themselves

#include "tests/support/Faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string_view>

namespace Faults {

namespace {

// Per thread: tests with several threads watch and fail only their own.
thread_local std::vector<Fail*> fails;
thread_local std::vector<Trace*> traces;
thread_local bool busy = false;  // the collecting itself may write
Hook hook = nullptr;

/// The next definition of an interposed function, under the name that this machine's headers gave
/// it: a 32-bit one calls others for the sake of its 64-bit times.
template <class Function>
Function* next(Function* own) {
  Dl_info symbol{};
  dladdr(reinterpret_cast<void*>(own), &symbol);
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol.dli_sname));
}

}  // namespace

struct Interposer {
  /// The fault that this call meets, or null.
  static Fail* match(Call call) {
    for (Fail* fail : fails) {
      if (fail->call_ != call) {
        continue;
      }
      if (fail->skip_ > 0) {
        --fail->skip_;
        continue;
      }
      if (fail->times_ != 0) {
        fail->times_ -= fail->times_ > 0 ? 1 : 0;
        ++fail->hits_;
        return fail;
      }
    }
    return nullptr;
  }

  /// What the call is to fail with; 0 if it is not.
  static int errorOf(Call call, std::size_t size, const void* caller) {
    if (hook != nullptr) {
      return hook(call, size, caller);
    }
    const Fail* fail = match(call);
    return fail == nullptr ? 0 : fail->error_;
  }

  static void record(Call call, int fd, std::size_t size, long result, std::string_view bytes) {
    if (busy || traces.empty()) {
      return;
    }
    const int callersErrno = errno;
    busy = true;
    for (Trace* trace : traces) {
      trace->calls_.push_back(Seen{call, fd, size, result, std::string(bytes)});
    }
    busy = false;
    errno = callersErrno;
  }

  /// Goes on to the next definition, unless the call is to fail.
  template <class Function, class... Arguments>
  static auto call(const void* caller, Call kind, int fd, std::size_t size, std::string_view bytes,
                   Function* real, Arguments... arguments) {
    if (busy) {
      return real(arguments...);
    }
    const int error = errorOf(kind, size, caller);
    decltype(real(arguments...)) result = -1;
    if (error == 0 || kind == Call::kClose) {
      result = real(arguments...);
    }
    if (error != 0) {
      errno = error;
      result = -1;
    }
    record(kind, fd, size, static_cast<long>(result), bytes);
    return result;
  }
};

Fail::Fail(Call call, int error, int times, int skip)
    : call_(call), error_(error), times_(times), skip_(skip) {
  fails.push_back(this);
}

Fail::~Fail() {
  fails.erase(std::find(fails.begin(), fails.end(), this));
}

bool collecting() {
  return busy;
}

void setHook(Hook function) {
  hook = function;
}

Trace::Trace() {
  traces.push_back(this);
}

Trace::~Trace() {
  traces.erase(std::find(traces.begin(), traces.end(), this));
}

void Trace::note(const std::string& line) {
  calls_.push_back(Seen{Call::kNote, -1, 0, 0, line});
}

std::vector<Seen> Trace::of(Call call) const {
  std::vector<Seen> found;
  std::copy_if(calls_.begin(), calls_.end(), std::back_inserter(found),
               [call](const Seen& seen) { return seen.call == call; });
  return found;
}

}  // namespace Faults

using Faults::Call;
using Faults::Interposer;
using Faults::next;

// Of an interposed function.
#define CALLER __builtin_return_address(0)

extern "C" {

int socket(int domain, int type, int protocol) {
  static const auto real = next(socket);
  return Interposer::call(CALLER, Call::kSocket, -1, 0, {}, real, domain, type, protocol);
}

int bind(int fd, const sockaddr* address, socklen_t size) {
  static const auto real = next(bind);
  return Interposer::call(CALLER, Call::kBind, fd, size,
                          {reinterpret_cast<const char*>(address), size}, real, fd, address, size);
}

int listen(int fd, int backlog) {
  static const auto real = next(listen);
  return Interposer::call(CALLER, Call::kListen, fd, static_cast<std::size_t>(backlog), {}, real,
                          fd, backlog);
}

int accept(int fd, sockaddr* address, socklen_t* size) {
  static const auto real = next(accept);
  return Interposer::call(CALLER, Call::kAccept, fd, size == nullptr ? 0 : *size, {}, real, fd,
                          address, size);
}

int connect(int fd, const sockaddr* address, socklen_t size) {
  static const auto real = next(connect);
  return Interposer::call(CALLER, Call::kConnect, fd, size,
                          {reinterpret_cast<const char*>(address), size}, real, fd, address, size);
}

int getsockopt(int fd, int level, int option, void* value, socklen_t* size) {
  static const auto real = next(getsockopt);
  return Interposer::call(CALLER, Call::kGetsockopt, fd, *size, {}, real, fd, level, option, value,
                          size);
}

int fcntl(int fd, int command, ...) {
  static const auto real = next(fcntl);
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (command != F_GETFL && command != F_SETFL) {
    return real(fd, command, argument);
  }
  return Interposer::call(CALLER, command == F_GETFL ? Call::kGetFl : Call::kSetFl, fd,
                          reinterpret_cast<std::uintptr_t>(argument), {}, real, fd, command,
                          argument);
}

ssize_t read(int fd, void* buffer, size_t size) {
  static const auto real = next(read);
  return Interposer::call(CALLER, Call::kRead, fd, size, {}, real, fd, buffer, size);
}

ssize_t write(int fd, const void* bytes, size_t size) {
  static const auto real = next(write);
  return Interposer::call(CALLER, Call::kWrite, fd, size, {static_cast<const char*>(bytes), size},
                          real, fd, bytes, size);
}

int close(int fd) {
  static const auto real = next(close);
  return Interposer::call(CALLER, Call::kClose, fd, 0, {}, real, fd);
}

char* strerror(int error) noexcept {
  static const auto real = next(strerror);
  char* const text = real(error);
  Interposer::record(Call::kStrerror, -1, 0, error, {});
  return text;
}

int epoll_create1(int flags) noexcept {
  static const auto real = next(epoll_create1);
  return Interposer::call(CALLER, Call::kEpollCreate, -1, 0, {}, real, flags);
}

int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
  static const auto real = next(epoll_ctl);
  return Interposer::call(CALLER, Call::kEpollCtl, fd, static_cast<std::size_t>(operation), {},
                          real, epoll, operation, fd, event);
}

int epoll_wait(int epoll, epoll_event* events, int count, int timeout) {
  static const auto real = next(epoll_wait);
  return Interposer::call(CALLER, Call::kEpollWait, epoll, static_cast<std::size_t>(count), {},
                          real, epoll, events, count, timeout);
}

int poll(pollfd* fds, nfds_t count, int timeout) {
  static const auto real = next(poll);
  return Interposer::call(CALLER, Call::kPoll, -1, count, {}, real, fds, count, timeout);
}

int eventfd(unsigned count, int flags) noexcept {
  static const auto real = next(eventfd);
  return Interposer::call(CALLER, Call::kEventfd, -1, 0, {}, real, count, flags);
}

int timerfd_create(int clock, int flags) noexcept {
  static const auto real = next(timerfd_create);
  return Interposer::call(CALLER, Call::kTimerfdCreate, -1, 0, {}, real, clock, flags);
}

int timerfd_settime(int fd, int flags, const itimerspec* setting, itimerspec* old) noexcept {
  static const auto real = next(timerfd_settime);
  return Interposer::call(CALLER, Call::kTimerfdSettime, fd, 0, {}, real, fd, flags, setting, old);
}

}  // extern "C"
