#include "bench/support/Raw.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace Bench {

namespace {

sockaddr_un abstractAddress(const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path + 1, sizeof address.sun_path - 2);
  return address;
}

int openSocket(int type) {
  return static_cast<int>(must(::socket(AF_UNIX, type, 0), "socket"));
}

int listenAt(const sockaddr_un& address, int type, int backlog) {
  const int fd = openSocket(type);
  must(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
  must(::listen(fd, backlog), "listen");
  return fd;
}

}  // namespace

std::int64_t must(std::int64_t result, const char* call) {
  if (result < 0) {
    throw std::runtime_error(std::string(call) + ": " + std::strerror(errno));
  }
  return result;
}

int listenOn(const std::string& name) {
  return listenAt(abstractAddress(name), SOCK_SEQPACKET, 5);
}

int listenAtPath(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return listenAt(address, SOCK_STREAM | SOCK_CLOEXEC, SOMAXCONN);
}

int connectTo(const std::string& name) {
  const int fd = openSocket(SOCK_SEQPACKET);
  const sockaddr_un address = abstractAddress(name);
  must(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), "connect");
  return fd;
}

bool Record::readFrom(int fd) {
  const auto length = must(::read(fd, bytes_, sizeof bytes_ - 1), "read");
  size_ = static_cast<std::size_t>(length);
  bytes_[size_] = '\0';
  return size_ > 0;
}

Record answerFrom(int fd) {
  Record answer;
  if (!answer.readFrom(fd)) {
    throw std::runtime_error("the server has closed the connection");
  }
  return answer;
}

void writeRecord(int fd, std::string_view text) {
  must(::write(fd, text.data(), text.size()), "write");
}

}  // namespace Bench
