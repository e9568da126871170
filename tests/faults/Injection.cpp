#include "tests/faults/Injection.h"

#include <link.h>
#include <sys/epoll.h>
#include <sys/mman.h>

#include <algorithm>
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

/// A kind of call, and the errors that the manual gives for it.
struct Kind {
  Call name;
  Faults::Call call;
  std::vector<int> errors;
  std::size_t operation = 0;  // of epoll_ctl
  int count = 0;
};

/// The kinds are there from the start, so that counting allocates nothing.
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
      {"malloc", Call::kNote, {ENOMEM}},  // counted by itself
  };
  return all;
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

/// Counts one call; the error that it is to fail with, or 0.
int before(Faults::Call call, std::size_t size, const void* caller) {
  if (!counting || inside || !isLibrary(caller)) {
    return 0;
  }
  const auto kind = std::find_if(kinds().begin(), kinds().end(), [&](const Kind& each) {
    return each.call == call && (each.operation == 0 || each.operation == size);
  });
  if (kind == kinds().end()) {
    return 0;
  }
  ++kind->count;
  if (kind->name != planned.call || kind->count != planned.occurrence) {
    return 0;
  }
  done = true;
  return planned.error;
}

}  // namespace

void start(const Fault& fault) {
  Faults::setHook(before);
  { const Faults::Trace first; }  // takes what the interposer takes once in a thread
  planned = fault;
  allocations = 0;
  done = false;
  *sharedFlag() = false;
  for (Kind& kind : kinds()) {
    kind.count = 0;
  }
  counting = true;
}

void stop() {
  counting = false;
  kinds().back().count = allocations;
}

std::map<Call, int> calls() {
  std::map<Call, int> counts;
  for (const Kind& kind : kinds()) {
    counts[kind.name] = kind.count;
  }
  return counts;
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
  return std::find_if(kinds().begin(), kinds().end(),
                      [&call](const Kind& kind) { return kind.name == call; })
      ->errors;
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
