#include "tests/faults/Injection.h"

#include <link.h>
#include <sys/epoll.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "tests/support/Faults.h"

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

/// Counts one call; true if it is the one to fail.
bool fails(const void* caller, const char* call) {
  if (!counting || inside || !isLibrary(caller)) {
    return false;
  }
  inside = true;
  const int occurrence = ++counts().at(call);
  const bool fail = planned.call == call && planned.occurrence == occurrence;
  inside = false;
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

const char* nameOf(Faults::Call call, std::size_t size) {
  using Faults::Call;
  switch (call) {
    case Call::kSocket:
      return "socket";
    case Call::kBind:
      return "bind";
    case Call::kListen:
      return "listen";
    case Call::kAccept:
      return "accept";
    case Call::kConnect:
      return "connect";
    case Call::kGetsockopt:
      return "getsockopt";
    case Call::kGetFl:
      return "F_GETFL";
    case Call::kSetFl:
      return "F_SETFL";
    case Call::kRead:
      return "read";
    case Call::kWrite:
      return "write";
    case Call::kClose:
      return "close";
    case Call::kEpollCreate:
      return "epoll_create1";
    case Call::kEpollCtl:
      return size == EPOLL_CTL_ADD   ? "EPOLL_CTL_ADD"
             : size == EPOLL_CTL_MOD ? "EPOLL_CTL_MOD"
                                     : "EPOLL_CTL_DEL";
    case Call::kEpollWait:
      return "epoll_wait";
    case Call::kEventfd:
      return "eventfd";
    case Call::kTimerfdCreate:
      return "timerfd_create";
    case Call::kTimerfdSettime:
      return "timerfd_settime";
    case Call::kPoll:
      return "poll";
    default:
      return "";
  }
}

/// Counts one call; the error that it is to fail with, or 0.
int before(Faults::Call call, std::size_t size, const void* caller) {
  return fails(caller, nameOf(call, size)) ? planned.error : 0;
}

}  // namespace

void start(const Fault& fault) {
  Faults::setHook(before);
  { const Faults::Trace first; }  // takes what the interposer takes once in a thread
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

extern "C" {

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
