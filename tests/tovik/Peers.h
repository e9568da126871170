#pragma once

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/Faults.h"
#include "tests/support/Support.h"

// What the tests of the sender, the connection and the server share.

constexpr auto kSubscribe = R"({"command":"set","notification":true})";
constexpr auto kUnsubscribe = R"({"command":"set","notification":false})";
constexpr auto kAccepted = R"({"type":"reply","status":0})";

/// A validator, for servers that are not tested for theirs.
inline bool admitAll(int /*pid*/, unsigned /*uid*/, unsigned /*gid*/) {
  return true;
}

/// The events that this thread's loop asks the kernel for on `fd`; none if it does not watch it.
inline unsigned watchedEvents(int fd) {
  const auto loop = Kelvo::Platform::EventLoop::current().fd();
  std::ifstream info("/proc/self/fdinfo/" + std::to_string(loop));
  for (std::string line; std::getline(info, line);) {
    int watched = -1;
    unsigned events = 0;
    if (std::sscanf(line.c_str(), "tfd: %d events: %x", &watched, &events) == 2 && watched == fd) {
      return events & (EPOLLIN | EPOLLOUT);
    }
  }
  return 0;
}

inline bool wantsWriteEvents(int fd) {
  return (watchedEvents(fd) & EPOLLOUT) != 0;
}

inline bool isOpen(int fd) {
  return ::fcntl(fd, F_GETFD) >= 0;
}

/// One turn without waiting. True when a callback was made.
inline bool turn() {
  return Kelvo::Platform::EventLoop::current().dispatch();
}

/// A JSON object of exactly that many bytes.
inline std::string messageOfSize(std::size_t bytes, char fill = 'x') {
  const std::string frame = R"({"m":""})";
  return R"({"m":")" + std::string(bytes - frame.size(), fill) + R"("})";
}

/// The records that wait on `fd`, in order.
inline std::vector<std::string> receivedBy(int fd) {
  std::vector<std::string> records;
  for (auto record = rawReceiveNow(fd); record != "<nothing>"; record = rawReceiveNow(fd)) {
    records.push_back(record);
    if (record == "<end>" || record == "<error>") {
      break;
    }
  }
  return records;
}

/// The calls made on `fd`, in order.
inline std::vector<Faults::Seen> callsOn(int fd, const Faults::Trace& trace) {
  std::vector<Faults::Seen> found;
  for (const auto& seen : trace.calls()) {
    if (seen.fd == fd) {
      found.push_back(seen);
    }
  }
  return found;
}

/// How often that epoll_ctl operation was done on `fd`.
inline int epollControls(int fd, int operation, const Faults::Trace& trace) {
  int count = 0;
  for (const auto& seen : callsOn(fd, trace)) {
    if (seen.call == Faults::Call::kEpollCtl && seen.size == static_cast<std::size_t>(operation)) {
      ++count;
    }
  }
  return count;
}

/// True if the loop was told to forget `fd`, once, and it was closed, once, in this order.
inline bool detachedThenClosed(int fd, const Faults::Trace& trace) {
  std::string order;
  for (const auto& seen : callsOn(fd, trace)) {
    if (seen.call == Faults::Call::kEpollCtl && seen.size == EPOLL_CTL_DEL) {
      order += "detached ";
    } else if (seen.call == Faults::Call::kClose) {
      order += "closed ";
    }
  }
  return order == "detached closed ";
}
