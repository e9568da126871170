#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "tool/Run.h"

namespace tool {

/// What somebody at a terminal is told who is asked for lines.
constexpr const char* kTypeMessages = "type messages, one a line; Ctrl-D ends.";

/// The lines of a file, pipe or terminal. The event loop turns while one is waited for.
class Lines {
 public:
  /// "-" is standard input.
  Lines(Run& run, const std::string& file, const char* hint = kTypeMessages);
  Lines(const Lines&) = delete;
  Lines& operator=(const Lines&) = delete;
  ~Lines();

  /// The next line that holds something (the last one needs no line end); nothing at the end, and
  /// when nobody wants the command any more. What no message could be as long as is cut, so that
  /// hostile input takes no memory.
  std::optional<std::string> next();
  /// The number of the line that was handed out last, from 1.
  std::size_t number() const { return number_; }

 private:
  std::optional<std::string> line();
  bool fill();
  void waitForInput();

  Run& run_;
  const std::string file_;
  const int fd_;
  std::string buffer_;
  std::size_t at_ = 0;
  std::size_t number_ = 0;
};

}  // namespace tool
