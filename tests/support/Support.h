#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Api/Json/Types.h"
#include "Kelvo/Platform/Debug.h"
#include "Kelvo/Platform/EventLoop.h"
#include "tests/support/LogSink.h"

// What the tests share: names, loops turned by hand, raw sockets, the captured debug channel.

/// A server name that no other test, process or repetition uses.
std::string uniqueName();

/// What the C library says as it ends the process for a name that is too long. Others than glibc
/// have no check of their own, and end it without a word.
#ifdef __GLIBC__
inline constexpr auto kWordsOnALongName = "buffer overflow detected";
#else
inline constexpr auto kWordsOnALongName = "";
#endif

/// Turns this thread's loop until `condition` holds. False if it still does not after `limit`.
bool turnUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds limit = std::chrono::seconds(10));

/// Turns this thread's loop until a turn without waiting has nothing to deliver.
void turnUntilIdle();

/// The open descriptors of this process.
std::set<int> openDescriptors();

/// The number that the next descriptor to be opened gets.
int nextDescriptor();

/// Whether `child` ends by itself with exit status 0, within ten seconds.
bool endsWell(pid_t child);
/// The same of a forked child that runs `action`: whether that returns true.
bool inChild(const std::function<bool()>& action, pid_t (*forkNow)() = ::fork);

/// The message that a JSON text stands for, parse error or not.
Tovik::Message parsed(const std::string& text);
/// The text of a message, without whitespace.
std::string compact(const Tovik::Message& msg);

/// A file descriptor that closes itself.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(other.release()) {}
  Fd& operator=(Fd&& other) noexcept;
  ~Fd() { reset(); }

  int get() const { return fd_; }
  int release();
  void reset();

 private:
  int fd_;
};

/// Leaves 0 free for the next descriptor while it lives.
class FreeDescriptorZero {
 public:
  FreeDescriptorZero() : saved_(::dup(0)) { ::close(0); }
  FreeDescriptorZero(const FreeDescriptorZero&) = delete;
  FreeDescriptorZero& operator=(const FreeDescriptorZero&) = delete;
  ~FreeDescriptorZero() {
    if (saved_.get() >= 0) {
      ::dup2(saved_.get(), 0);
    }
  }

 private:
  Fd saved_;
};

// Raw sockets, written from the wire's rules alone and not with the library's code. Addresses are
// 110 bytes unless another length is asked for.

/// A listening sequenced-packet socket under that name.
Fd rawListen(const std::string& name, socklen_t addressSize = 110, int backlog = 5);
/// A connected one; -1 inside, and errno, if it cannot.
Fd rawConnect(const std::string& name, socklen_t addressSize = 110);
/// Two connected, blocking sockets.
std::pair<Fd, Fd> rawPair();
/// The same, of which the first is non-blocking, as the library's ends are.
std::pair<Fd, Fd> nonBlockingPair();
/// Sends one record.
void rawSend(int fd, std::string_view record);
/// Waits for one record, up to ten seconds or that long. "<end>" at the end of the connection,
/// "<nothing>" after the time, "<error>" if the peer has gone without reading all, the system's
/// words on any other failure.
std::string rawReceive(int fd, int milliseconds = 10000);
/// The next record if there is one already, else "<nothing>".
std::string rawReceiveNow(int fd);
void setNonBlocking(int fd);

/// Collects the records of the channel "Tovik" while it lives; enables all levels, or those given.
class CapturedLog {
 public:
  explicit CapturedLog(unsigned mask = 0xF);

  const std::vector<Kelvo::Platform::DebugRecord>& records() const { return records_; }
  /// Each record, or those of one level, as "level path function: text".
  std::vector<std::string> lines(int level = -1) const;
  bool has(const std::string& line) const;
  void clear() { records_.clear(); }

 private:
  std::vector<Kelvo::Platform::DebugRecord> records_;
  LogSink sink_;
};
