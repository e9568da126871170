#undef _FORTIFY_SOURCE  // whose headers define some of these functions themselves

#include "tests/faults/Injection.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

// The C library's own, under the names that its malloc functions have beside the public ones.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);
}

namespace Injection {

namespace {

struct Range {
  std::uintptr_t from = 0;
  std::uintptr_t to = 0;
};

std::vector<Range> findLibraries() {
  std::vector<Range> ranges;
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* result) {
        if (std::strstr(info->dlpi_name, "libTovik") == nullptr &&
            std::strstr(info->dlpi_name, "libKelvo") == nullptr) {
          return 0;
        }
        for (int i = 0; i < info->dlpi_phnum; ++i) {
          const auto& header = info->dlpi_phdr[i];
          if (header.p_type == PT_LOAD && (header.p_flags & PF_X) != 0) {
            const auto from = info->dlpi_addr + header.p_vaddr;
            static_cast<std::vector<Range>*>(result)->push_back({from, from + header.p_memsz});
          }
        }
        return 0;
      },
      &ranges);
  return ranges;
}

const std::vector<Range> libraries = findLibraries();

bool isLibrary(const void* caller) {
  const auto address = reinterpret_cast<std::uintptr_t>(caller);
  for (const Range& range : libraries) {
    if (address >= range.from && address < range.to) {
      return true;
    }
  }
  return false;
}

// Runs are made one after the other; only the thread of the run counts.
thread_local bool counting = false;
thread_local bool inside = false;  // the counting itself calls and allocates
bool done = false;
Fault planned;
int allocations = 0;
std::atomic<long> live{0};

/// The kinds are there from the start, so that counting allocates nothing.
std::map<Call, int>& counts() {
  static auto& all = *new std::map<Call, int>{
      {"socket", 0},        {"bind", 0},           {"listen", 0},          {"accept", 0},
      {"connect", 0},       {"getsockopt", 0},     {"F_GETFL", 0},         {"F_SETFL", 0},
      {"read", 0},          {"write", 0},          {"close", 0},           {"epoll_create1", 0},
      {"EPOLL_CTL_ADD", 0}, {"EPOLL_CTL_MOD", 0},  {"EPOLL_CTL_DEL", 0},   {"epoll_wait", 0},
      {"eventfd", 0},       {"timerfd_create", 0}, {"timerfd_settime", 0}, {"poll", 0},
      {"malloc", 0}};
  return all;
}

/// Counts one call; true if it is the one to fail, with errno set.
bool fails(const void* caller, const char* call) {
  if (!counting || inside || !isLibrary(caller)) {
    return false;
  }
  const int callersErrno = errno;
  inside = true;
  const int occurrence = ++counts().at(call);
  const bool fail = planned.call == call && planned.occurrence == occurrence;
  inside = false;
  errno = fail ? planned.error : callersErrno;
  done = done || fail;
  return fail;
}

bool* sharedFlag() {
  static bool* const flag = static_cast<bool*>(
      mmap(nullptr, sizeof(bool), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  return flag;
}

bool allocationFails(const void* caller) {
  if (!counting || inside) {
    return false;
  }
  ++allocations;
  if (planned.call.compare("malloc") != 0 || allocations != planned.occurrence) {
    return false;
  }
  *sharedFlag() = isLibrary(caller);  // everything else in the libraries uses operator new
  errno = ENOMEM;
  done = true;
  return true;
}

template <class Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void start(const Fault& fault) {
  planned = fault;
  allocations = 0;
  done = false;
  *sharedFlag() = false;
  for (auto& [call, count] : counts()) {
    count = 0;
  }
  counting = true;
}

void stop() {
  counting = false;
  counts().at("malloc") = allocations;
}

const std::map<Call, int>& calls() {
  return counts();
}

bool happened() {
  return done;
}

bool failedInRapidJson() {
  return *sharedFlag();
}

Suspended::Suspended() : before_(std::exchange(inside, true)) {}

Suspended::~Suspended() {
  inside = before_;
}

long liveBlocks() {
  return live.load();
}

const std::vector<int>& errorsOf(const Call& call) {
  static const std::vector<int> epollCtl = {EBADF,  EEXIST, EINVAL, ELOOP,
                                            ENOENT, ENOMEM, ENOSPC, EPERM};
  static const std::map<Call, std::vector<int>> errors = {
      {"socket", {EACCES, EAFNOSUPPORT, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPROTONOSUPPORT}},
      {"bind", {EACCES, EADDRINUSE, EADDRNOTAVAIL, EBADF, EINVAL, ENOMEM, ENOTSOCK}},
      {"listen", {EADDRINUSE, EBADF, ENOTSOCK, EOPNOTSUPP}},
      {"accept",
       {EAGAIN, EBADF, ECONNABORTED, EFAULT, EINTR, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM,
        ENOTSOCK, EOPNOTSUPP, EPERM, EPROTO}},
      {"connect",
       {EACCES, EPERM, EADDRINUSE, EAFNOSUPPORT, EAGAIN, EALREADY, EBADF, ECONNREFUSED, EFAULT,
        EINTR, EISCONN, ENOTSOCK, EPROTOTYPE, ETIMEDOUT}},
      {"getsockopt", {EBADF, EFAULT, EINVAL, ENOPROTOOPT, ENOTSOCK}},
      {"F_GETFL", {EBADF, EINTR, EINVAL, EPERM}},
      {"F_SETFL", {EBADF, EINTR, EINVAL, EPERM}},
      {"read", {EAGAIN, EBADF, ECONNRESET, EFAULT, EINTR, EINVAL, EIO, ENOMEM}},
      {"write",
       {EAGAIN, EBADF, ECONNRESET, EDESTADDRREQ, EFAULT, EFBIG, EINTR, EINVAL, EIO, EMSGSIZE,
        ENOBUFS, ENOMEM, ENOSPC, EPERM, EPIPE}},
      {"close", {EBADF, EDQUOT, EINTR, EIO, ENOSPC}},
      {"epoll_create1", {EINVAL, EMFILE, ENFILE, ENOMEM}},
      {"EPOLL_CTL_ADD", epollCtl},
      {"EPOLL_CTL_MOD", epollCtl},
      {"EPOLL_CTL_DEL", epollCtl},
      {"epoll_wait", {EBADF, EFAULT, EINTR, EINVAL}},
      {"eventfd", {EINVAL, EMFILE, ENFILE, ENODEV, ENOMEM}},
      {"timerfd_create", {EINVAL, EMFILE, ENFILE, ENODEV, ENOMEM, EPERM}},
      {"timerfd_settime", {EBADF, ECANCELED, EFAULT, EINVAL}},
      {"poll", {EFAULT, EINTR, EINVAL, ENOMEM}},
      {"malloc", {ENOMEM}},
  };
  return errors.at(call);
}

}  // namespace Injection

using Injection::fails;
using Injection::next;

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
  static const auto real = next<int (*)(int, int, int)>("socket");
  return fails(__builtin_return_address(0), "socket") ? -1 : real(domain, type, protocol);
}

int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
  static const auto real = next<int (*)(int, const sockaddr*, socklen_t)>("bind");
  return fails(__builtin_return_address(0), "bind") ? -1 : real(fd, address, size);
}

int listen(int fd, int backlog) noexcept {
  static const auto real = next<int (*)(int, int)>("listen");
  return fails(__builtin_return_address(0), "listen") ? -1 : real(fd, backlog);
}

int accept(int fd, sockaddr* address, socklen_t* size) {
  static const auto real = next<int (*)(int, sockaddr*, socklen_t*)>("accept");
  return fails(__builtin_return_address(0), "accept") ? -1 : real(fd, address, size);
}

int connect(int fd, const sockaddr* address, socklen_t size) {
  static const auto real = next<int (*)(int, const sockaddr*, socklen_t)>("connect");
  return fails(__builtin_return_address(0), "connect") ? -1 : real(fd, address, size);
}

int getsockopt(int fd, int level, int option, void* value, socklen_t* size) noexcept {
  static const auto real = next<int (*)(int, int, int, void*, socklen_t*)>("getsockopt");
  return fails(__builtin_return_address(0), "getsockopt") ? -1
                                                          : real(fd, level, option, value, size);
}

int fcntl(int fd, int command, ...) {
  static const auto real = next<int (*)(int, int, ...)>("fcntl");
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  const void* const caller = __builtin_return_address(0);
  if ((command == F_GETFL && fails(caller, "F_GETFL")) ||
      (command == F_SETFL && fails(caller, "F_SETFL"))) {
    return -1;
  }
  return real(fd, command, argument);
}

ssize_t read(int fd, void* buffer, size_t size) {
  static const auto real = next<ssize_t (*)(int, void*, size_t)>("read");
  return fails(__builtin_return_address(0), "read") ? -1 : real(fd, buffer, size);
}

ssize_t write(int fd, const void* bytes, size_t size) {
  static const auto real = next<ssize_t (*)(int, const void*, size_t)>("write");
  return fails(__builtin_return_address(0), "write") ? -1 : real(fd, bytes, size);
}

int close(int fd) {
  static const auto real = next<int (*)(int)>("close");
  const bool fail = fails(__builtin_return_address(0), "close");
  const int error = errno;
  const int result = real(fd);  // Linux closes the descriptor whatever it answers
  if (fail) {
    errno = error;
    return -1;
  }
  return result;
}

int epoll_create1(int flags) noexcept {
  static const auto real = next<int (*)(int)>("epoll_create1");
  return fails(__builtin_return_address(0), "epoll_create1") ? -1 : real(flags);
}

int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
  static const auto real = next<int (*)(int, int, int, epoll_event*)>("epoll_ctl");
  static const std::map<int, const char*> names = {{EPOLL_CTL_ADD, "EPOLL_CTL_ADD"},
                                                   {EPOLL_CTL_MOD, "EPOLL_CTL_MOD"},
                                                   {EPOLL_CTL_DEL, "EPOLL_CTL_DEL"}};
  return fails(__builtin_return_address(0), names.at(operation))
             ? -1
             : real(epoll, operation, fd, event);
}

int epoll_wait(int epoll, epoll_event* events, int count, int timeout) {
  static const auto real = next<int (*)(int, epoll_event*, int, int)>("epoll_wait");
  return fails(__builtin_return_address(0), "epoll_wait") ? -1
                                                          : real(epoll, events, count, timeout);
}

int eventfd(unsigned count, int flags) noexcept {
  static const auto real = next<int (*)(unsigned, int)>("eventfd");
  return fails(__builtin_return_address(0), "eventfd") ? -1 : real(count, flags);
}

int timerfd_create(int clock, int flags) noexcept {
  static const auto real = next<int (*)(int, int)>("timerfd_create");
  return fails(__builtin_return_address(0), "timerfd_create") ? -1 : real(clock, flags);
}

int timerfd_settime(int fd, int flags, const itimerspec* setting, itimerspec* old) noexcept {
  static const auto real =
      next<int (*)(int, int, const itimerspec*, itimerspec*)>("timerfd_settime");
  return fails(__builtin_return_address(0), "timerfd_settime") ? -1 : real(fd, flags, setting, old);
}

int poll(pollfd* fds, nfds_t count, int timeout) {
  static const auto real = next<int (*)(pollfd*, nfds_t, int)>("poll");
  return fails(__builtin_return_address(0), "poll") ? -1 : real(fds, count, timeout);
}

void* malloc(std::size_t size) noexcept {
  void* const block =
      Injection::allocationFails(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
  Injection::live += block != nullptr ? 1 : 0;
  return block;
}

void* calloc(std::size_t count, std::size_t size) noexcept {
  void* const block = Injection::allocationFails(__builtin_return_address(0))
                          ? nullptr
                          : __libc_calloc(count, size);
  Injection::live += block != nullptr ? 1 : 0;
  return block;
}

void* realloc(void* old, std::size_t size) noexcept {
  if (Injection::allocationFails(__builtin_return_address(0))) {
    return nullptr;
  }
  void* const block = __libc_realloc(old, size);
  Injection::live += (block != nullptr ? 1 : 0) - (old != nullptr ? 1 : 0);
  return block;
}

void free(void* block) noexcept {
  Injection::live -= block != nullptr ? 1 : 0;
  __libc_free(block);
}

}  // extern "C"
