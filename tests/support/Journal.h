#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/support/Faults.h"
#include "tests/support/LogSink.h"

/// What the library does and says in one sequence: its calls to the system on sockets, and to the
/// loop's epoll about them, and the records of the channel "Tovik". A line is a word and what
/// matters of its arguments; descriptors are letters, in order of appearance:
///
///     socket a    accept a b    attach b    write b {"x":1}    read b fails    detach b    close b
///     strerror    1 terminateConnection: AsyncSender::terminateConnection(): fd = a
class Journal {
 public:
  /// Enables these levels while it lives.
  explicit Journal(unsigned levels = 0);

  /// The lines since the last call.
  std::vector<std::string> take();
  /// Drops them.
  void forget() { trace_.clear(); }
  /// Adds a line of the test's own, in its place.
  void note(const std::string& line) { trace_.note(line); }
  /// Gives a letter to a descriptor that the library has not made. Calls on those without one are
  /// left out.
  void name(int fd);
  int fd(char letter) const;

 private:
  void write();
  char newLetter(int fd);
  std::string lineOf(const Faults::Seen& seen);
  std::string withLetters(std::string text) const;

  Faults::Trace trace_;
  std::vector<std::string> lines_;
  std::map<int, char> letters_;
  std::map<char, int> fds_;
  LogSink sink_;
};
