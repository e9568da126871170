#include "tests/support/Support.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <thread>
#include <utility>

using namespace std::chrono_literals;
using Kelvo::Platform::EventLoop;

std::string uniqueName() {
  static std::atomic<int> counter{0};
  return "tovik-test-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
}

bool turnUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    EventLoop::current().runOnce(10ms);
  }
  return true;
}

void turnUntilIdle() {
  while (EventLoop::current().dispatch()) {
  }
}

std::set<int> openDescriptors() {
  std::set<int> found;
  DIR* directory = opendir("/proc/self/fd");
  while (const dirent* entry = readdir(directory)) {
    const int fd = std::atoi(entry->d_name);
    if (entry->d_name[0] != '.' && fd != dirfd(directory)) {
      found.insert(fd);
    }
  }
  closedir(directory);
  return found;
}

int nextDescriptor() {
  const Fd fd(::dup(STDERR_FILENO));
  return fd.get();
}

bool endsWell(pid_t child) {
  const auto end = std::chrono::steady_clock::now() + 10s;
  int status = -1;
  while (waitpid(child, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > end) {
      kill(child, SIGKILL);
    }
    std::this_thread::yield();
  }
  return status == 0;
}

bool inChild(const std::function<bool()>& action, pid_t (*forkNow)()) {
  const pid_t child = forkNow();
  if (child == 0) {
    _exit(action() ? 0 : 1);
  }
  return endsWell(child);
}

Tovik::Message parsed(const std::string& text) {
  Tovik::Message msg;
  msg.Parse(text.c_str());
  return msg;
}

std::string compact(const Tovik::Message& msg) {
  return std::string(std::string_view(Tovik::Message::toStr(msg, false)));
}

Fd& Fd::operator=(Fd&& other) noexcept {
  reset();
  fd_ = other.release();
  return *this;
}

int Fd::release() {
  return std::exchange(fd_, -1);
}

void Fd::reset() {
  if (fd_ >= 0) {
    ::close(release());
  }
}

namespace {

sockaddr_un rawAddress(const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path + 1, name.data(), std::min<std::size_t>(name.size(), 107));
  return address;
}

}  // namespace

Fd rawListen(const std::string& name, socklen_t addressSize, int backlog) {
  Fd fd(::socket(AF_UNIX, SOCK_SEQPACKET, 0));
  const sockaddr_un address = rawAddress(name);
  EXPECT_EQ(::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), addressSize), 0)
      << std::strerror(errno);
  EXPECT_EQ(::listen(fd.get(), backlog), 0) << std::strerror(errno);
  return fd;
}

Fd rawConnect(const std::string& name, socklen_t addressSize) {
  Fd fd(::socket(AF_UNIX, SOCK_SEQPACKET, 0));
  const sockaddr_un address = rawAddress(name);
  if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), addressSize) != 0) {
    const int error = errno;
    fd.reset();
    errno = error;
  }
  return fd;
}

std::pair<Fd, Fd> rawPair() {
  int fds[2] = {-1, -1};
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
  return {Fd(fds[0]), Fd(fds[1])};
}

std::pair<Fd, Fd> nonBlockingPair() {
  auto ends = rawPair();
  setNonBlocking(ends.first.get());
  return ends;
}

void rawSend(int fd, std::string_view record) {
  EXPECT_EQ(::send(fd, record.data(), record.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(record.size()))
      << std::strerror(errno);
}

std::string rawReceive(int fd, int milliseconds) {
  pollfd query{fd, POLLIN, 0};
  if (::poll(&query, 1, milliseconds) == 0) {
    return "<nothing>";
  }
  char none;
  const auto length = ::recv(fd, &none, 0, MSG_PEEK | MSG_TRUNC);
  if (length < 0) {
    return errno == ECONNRESET ? "<error>" : std::strerror(errno);
  }
  std::string record(static_cast<std::size_t>(length), '\0');
  ::recv(fd, record.data(), record.size(), 0);
  return length == 0 ? "<end>" : record;
}

std::string rawReceiveNow(int fd) {
  return rawReceive(fd, 0);
}

void setNonBlocking(int fd) {
  ASSERT_EQ(::fcntl(fd, F_SETFL, O_RDWR | O_NONBLOCK), 0);
}

CapturedLog::CapturedLog(unsigned mask)
    : sink_(mask, [this](const auto& record) { records_.push_back(record); }) {}

std::vector<std::string> CapturedLog::lines(int level) const {
  std::vector<std::string> lines;
  for (const auto& record : records_) {
    if (level < 0 || record.level == level) {
      lines.push_back(std::to_string(record.level) + " " + record.file + " " + record.function +
                      ": " + record.text);
    }
  }
  return lines;
}

bool CapturedLog::has(const std::string& line) const {
  const auto all = lines();
  return std::find(all.begin(), all.end(), line) != all.end();
}
