#pragma once

// Private. What the library's sockets have in common.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "Kelvo/String.h"

namespace Tovik {

/// Every reader's buffer: room for 4095 bytes of a record and the NUL that ends the parser's text.
constexpr int kReadBufferSize = 4096;

static_assert(sizeof(sockaddr_un) == 110, "the length of an address is part of the wire format");

/// The address of the server of that name: a NUL (the abstract namespace), the name, and zeros up
/// to the structure's end. The whole structure counts as the address, so both ends pass its full
/// size. A name that has no room for its own NUL would meet the wrong server if it were cut, and is
/// a mistake of configuration: the C library's overflow check ends the process. It is called by
/// name because _FORTIFY_SOURCE would bring it in with optimisation only. Other C libraries than
/// glibc have none to call.
inline sockaddr_un addressOf(const Kelvo::String& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
#ifdef __GLIBC__
  // NOLINTNEXTLINE(clang-analyzer-security.insecureAPI.strcpy): this is the bounded one
  __builtin___strcpy_chk(address.sun_path + 1, name.data(), sizeof address.sun_path - 1);
#else
  const std::size_t withNul = std::strlen(name.data()) + 1;
  if (withNul > sizeof address.sun_path - 1) {
    std::abort();
  }
  std::memcpy(address.sun_path + 1, name.data(), withNul);
#endif
  return address;
}

/// Closes a descriptor unless another has taken it over.
class ScopedFd {
 public:
  explicit ScopedFd(int fd) : fd_(fd) {}
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  ~ScopedFd() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
  }
  void release() { fd_ = -1; }

 private:
  int fd_;
};

}  // namespace Tovik
