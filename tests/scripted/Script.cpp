#include "tests/scripted/Script.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

namespace {

thread_local Script* running = nullptr;

}  // namespace

Script::Script() {
  running = this;
  setLevels(0);
  clearOrigins();
}

Script::~Script() {
  setLevels(0);
  running = nullptr;
}

Script* Script::current() {
  return running;
}

// --- the journal ---

Lines Script::take() {
  drain();
  return std::exchange(lines_, {});
}

void Script::note(const std::string& line) {
  drain();
  lines_.push_back(line);
}

/// System calls are collected by the support; whatever else is noted comes after those made so far.
void Script::drain() {
  const auto calls = trace_.calls();
  trace_.clear();
  for (const auto& seen : calls) {
    const std::string line = lineOf(seen);
    if (!line.empty()) {
      lines_.push_back(line + (seen.result < 0 ? " fails" : ""));
    }
    if (seen.call == Faults::Call::kClose) {
      names_.erase(std::remove_if(names_.begin(), names_.end(),
                                  [&](const auto& named) { return named.first == seen.fd; }),
                   names_.end());
    }
  }
}

std::string Script::lineOf(const Faults::Seen& seen) {
  using Faults::Call;
  const auto result = static_cast<int>(seen.result);
  const std::string size = " " + std::to_string(seen.size);
  switch (seen.call) {
    case Call::kSocket:
      return "socket " + nameOf(result);
    case Call::kBind:
      return "bind " + nameOf(seen.fd) + size;
    case Call::kListen:
      return "listen " + nameOf(seen.fd) + size;
    case Call::kAccept: {
      const std::string listening = nameOf(seen.fd);
      return "accept " + listening + size + " " + nameOf(result);
    }
    case Call::kConnect:
      return "connect " + nameOf(seen.fd) + size;
    case Call::kGetsockopt:
      return "getsockopt " + nameOf(seen.fd) + size;
    case Call::kGetFl:
      flags_ = seen.result;
      return "getfl " + nameOf(seen.fd);
    case Call::kSetFl:
      return "setfl " + nameOf(seen.fd) +
             (static_cast<long>(seen.size) == (flags_ | O_NONBLOCK) ? " +nonblock" : size);
    case Call::kRead:
      return "read " + nameOf(seen.fd) + size;
    case Call::kWrite:
      return seen.fd <= STDERR_FILENO ? "" : "write " + nameOf(seen.fd) + " " + seen.bytes;
    case Call::kClose:
      return "close " + nameOf(seen.fd);
    case Call::kStrerror:
      return "strerror";
    default:
      return "an event loop's call";
  }
}

std::string Script::nameOf(int fd) {
  if (fd < 0) {
    return "-";
  }
  for (const auto& [number, name] : names_) {
    if (number == fd) {
      return {name};
    }
  }
  names_.emplace_back(fd, nextName_);
  return {nextName_++};
}

int Script::fd(char name) const {
  for (const auto& [number, given] : names_) {
    if (given == name) {
      return number;
    }
  }
  ADD_FAILURE() << "no descriptor appears as " << name;
  return -1;
}

// --- controls, timers and their events ---

void Script::add(Watch& watch) {
  watch.number = ++controlsMade_;
  watches_.push_back(&watch);
}

void Script::remove(const Watch& watch) {
  watches_.erase(std::find(watches_.begin(), watches_.end(), &watch));
}

void Script::add(Clock& clock) {
  clock.number = ++timersMade_;
  clocks_.push_back(&clock);
}

void Script::remove(const Clock& clock) {
  clocks_.erase(std::find(clocks_.begin(), clocks_.end(), &clock));
}

const Script::Watch& Script::watch(int number) const {
  for (const Watch* watch : watches_) {
    if (watch->number == number) {
      return *watch;
    }
  }
  ADD_FAILURE() << "no control " << number;
  static const Watch none;
  return none;
}

const Script::Clock& Script::clock(int number) const {
  for (const Clock* clock : clocks_) {
    if (clock->number == number) {
      return *clock;
    }
  }
  ADD_FAILURE() << "no timer " << number;
  static const Clock none;
  return none;
}

void Script::readable(int fd) {
  const auto found = std::find_if(watches_.begin(), watches_.end(),
                                  [fd](const Watch* watch) { return watch->fd == fd; });
  ASSERT_NE(found, watches_.end()) << "nobody watches " << fd;
  (*found)->handler->readFdEvent(fd);
}

void Script::writable(int fd) {
  const auto found = std::find_if(watches_.begin(), watches_.end(), [fd](const Watch* watch) {
    return watch->fd == fd && watch->writeInterest;
  });
  ASSERT_NE(found, watches_.end()) << "nobody wants to write to " << fd;
  (*found)->handler->writeFdEvent(fd);
}

void Script::expire(int timer) {
  ASSERT_NE(clock(timer).handler, nullptr);
  clock(timer).handler->timeout();
}

Farewell::~Farewell() {
  if (running != nullptr && !line_.empty()) {
    running->note(line_);
  }
}

// --- the far end, by direct system calls, which nothing stands in front of ---

namespace {

sockaddr_un addressOf(const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path + 1, name.data(), name.size());
  return address;
}

Peer namedSocket(long call, const std::string& name) {
  const auto fd = static_cast<int>(::syscall(SYS_socket, AF_UNIX, SOCK_SEQPACKET, 0));
  const sockaddr_un address = addressOf(name);
  EXPECT_EQ(::syscall(call, fd, &address, sizeof address), 0) << std::strerror(errno);
  return Peer(fd);
}

}  // namespace

Peer Peer::connectedTo(const std::string& name) {
  return namedSocket(SYS_connect, name);
}

Peer Peer::listeningAs(const std::string& name) {
  Peer peer = namedSocket(SYS_bind, name);
  EXPECT_EQ(::syscall(SYS_listen, peer.fd_, 5), 0);
  return peer;
}

std::pair<int, Peer> Peer::pair() {
  int fds[2] = {-1, -1};
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, fds), 0);
  return {fds[0], Peer(fds[1])};
}

Peer Peer::accept() const {
  return Peer(static_cast<int>(::syscall(SYS_accept4, fd_, nullptr, nullptr, 0)));
}

void Peer::send(const std::string& record) const {
  EXPECT_EQ(::send(fd_, record.data(), record.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(record.size()));
}

std::string Peer::receive() const {
  char record[5000];
  const auto length = ::recv(fd_, record, sizeof record, MSG_DONTWAIT);
  if (length < 0) {
    return "<nothing>";
  }
  return length == 0 ? "<end>" : std::string(record, static_cast<std::size_t>(length));
}

void Peer::hangUp() {
  if (fd_ >= 0) {
    ::syscall(SYS_close, std::exchange(fd_, -1));
  }
}

std::string freshName() {
  static std::atomic<int> counter{0};
  return "tovik-scripted-" + std::to_string(::getpid()) + "-" + std::to_string(++counter);
}
