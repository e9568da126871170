#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Kelvo/Platform/FdEventHandler.h"
#include "Kelvo/Platform/TimeoutHandler.h"
#include "tests/support/Faults.h"

// The library on another base library: its sources are compiled into this program once more, with
// the same base headers, and BaseLibrary.cpp supplies everything that those declare. There is no
// event loop in it. A Script writes down, in one journal, whatever crosses the library's lower
// edge, calls to the base library and to the system alike, and delivers events when the test says
// so.

using Lines = std::vector<std::string>;

/// The base library's behaviour and its journal, while a test runs. One at a time, on one thread.
///
/// Descriptors appear as letters, in order of appearance; controls and timers as numbers. A line is
/// a word and what matters of its arguments:
///
///     getFdControl 1    attach 1 a    interest 1 on    detach 1    release 1
///     getTimer 1        arm 1 5       releaseTimer 1
///     socket a    connect a 110    read a 4095    write a {"x":1}    close a    ...
///     stream    output 0 Api/Json/Server Server: text    streamGone
class Script {
 public:
  /// A control that the library holds, and what it has asked of it.
  struct Watch {
    int number = 0;
    Kelvo::Platform::FdEventHandler* handler = nullptr;
    int fd = -1;
    bool writeInterest = false;
  };

  /// A timer that the library holds.
  struct Clock {
    int number = 0;
    Kelvo::Platform::TimeoutHandler* handler = nullptr;
    const Kelvo::Platform::FdEventHandler* unlessAttached = nullptr;
    double seconds = -1;  // as last armed
  };

  Script();
  Script(const Script&) = delete;
  Script& operator=(const Script&) = delete;
  ~Script();

  /// The script that runs on this thread, or null.
  static Script* current();

  /// The journal's lines since the last call.
  Lines take();
  /// Adds a line of the test's own, in its place.
  void note(const std::string& line);
  /// The descriptor that appears as that letter.
  int fd(char name) const;

  // Events, as an event loop would deliver them.
  void readable(int fd);
  void writable(int fd);
  void expire(int timer);

  const Watch& watch(int number) const;
  const Clock& clock(int number) const;
  void add(Watch& watch);
  void remove(const Watch& watch);
  void add(Clock& clock);
  void remove(const Clock& clock);
  std::string nameOf(int fd);

  // What is to happen.
  bool refusesToAttach = false;
  bool strerrorKnowsNothing = false;
  bool writesFallShort = false;         // as reported to the library
  bool showsDescriptorQueries = false;  // lines "fd 1"
  bool showsHandleRequests = false;     // lines "handle Tovik false"
  bool showsHandlersEnds = false;       // lines "base ~FdEventHandler", "base ~TimeoutHandler"
  std::function<void(Kelvo::Platform::FdEventHandler*)> whenAttaching;
  std::function<void()> whenReleasing;
  std::function<void()> whenClosing;

 private:
  void drain();
  std::string lineOf(const Faults::Seen& seen);

  Faults::Trace trace_;
  Lines lines_;
  std::vector<std::pair<int, char>> names_;
  char nextName_ = 'a';
  long flags_ = 0;  // as F_GETFL last returned them
  std::vector<Watch*> watches_;
  std::vector<Clock*> clocks_;
  int controlsMade_ = 0;
  int timersMade_ = 0;
};

/// Enables level n for every bit n, on the handle of every source file.
void setLevels(unsigned mask);

/// How often a debug handle has been asked for in this process, whichever thread asked.
int handleRequests();

/// For each record since the script began: which of the handles it came through, and its line.
struct Origin {
  std::string file;
  int handle = 0;
  int line = 0;
};
const std::vector<Origin>& origins();
void clearOrigins();

/// Writes a line into the running script's journal when it is destroyed, and copies as often as it
/// is copied. Put into a callback, it shows when that callback's owner dies.
class Farewell {
 public:
  explicit Farewell(std::string line) : line_(std::move(line)) {}
  Farewell(const Farewell&) = default;
  Farewell(Farewell&& other) noexcept : line_(std::exchange(other.line_, {})) {}
  Farewell& operator=(const Farewell&) = delete;
  ~Farewell();

 private:
  std::string line_;  // nothing is written once it was moved from
};

/// The far end of a socket. What it does stays out of the journal.
class Peer {
 public:
  explicit Peer(int fd = -1) : fd_(fd) {}
  Peer(Peer&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Peer& operator=(Peer&&) = delete;
  ~Peer() { hangUp(); }

  /// Connected to the server of that name.
  static Peer connectedTo(const std::string& name);
  /// Listening under that name.
  static Peer listeningAs(const std::string& name);
  /// Two connected ends; the first, non-blocking, for the library.
  static std::pair<int, Peer> pair();

  bool valid() const { return fd_ >= 0; }
  Peer accept() const;
  void send(const std::string& record) const;
  /// The next record, "<nothing>" or "<end>".
  std::string receive() const;
  void hangUp();

 private:
  int fd_;
};

/// A server name that no other test, process or repetition uses.
std::string freshName();
