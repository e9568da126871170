#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "Api/Json/Types.h"
#include "Kelvo/Platform/FdEventHandler.h"
#include "Kelvo/Ptr.h"
#include "tool/Lint.h"
#include "tool/Run.h"

namespace tool {

/// Cuts what is fed to it into lines. A line longer than any message could reasonably be is cut
/// there, so that hostile input takes no memory.
class LineSplitter {
 public:
  static constexpr std::size_t kLongest = 1 << 20;

  void feed(std::string_view bytes) { buffer_ += bytes; }
  void end() { ended_ = true; }
  /// The next whole line (the last one needs no line end); nothing if more input is needed.
  std::optional<std::string> next();
  bool atEnd() const { return ended_ && at_ == buffer_.size(); }

 private:
  std::string buffer_;
  std::size_t at_ = 0;     // up to here, lines have been handed out
  bool skipping_ = false;  // the rest of a line that was cut
  bool ended_ = false;
};

/// Hands out all lines that `read` (bytes, 0 at the end, or -1 and errno) gives, with their numbers
/// from 1, but for blank ones.
void forEachLine(const std::function<long(char* buffer, std::size_t size)>& read,
                 const std::function<void(const std::string& line, std::size_t number)>& take,
                 const std::string& file);

/// Opened for reading; "-" is standard input.
int openedForReading(const std::string& file);

/// What somebody at a terminal is told who is asked for lines.
constexpr const char* kTypeMessages = "type messages, one a line; Ctrl-D ends.";

/// Reads a file, pipe or terminal line by line in the event loop, no faster than asked to.
class Lines : private Kelvo::Platform::FdEventHandler {
 public:
  /// "-" is standard input. `line` gets an empty optional at the end.
  using Taker = std::function<void(std::optional<std::string> line)>;
  Lines(const std::string& file, Taker line, const char* hint = kTypeMessages);
  ~Lines() override;

  /// Leads to one call of the taker: at once, or from the loop.
  void want() { pump_.want(); }
  /// The number of the line that was handed out last, from 1.
  std::size_t number() const { return number_; }

 private:
  void readFdEvent(int fd) override;
  void step();
  void fill();

  const std::string file_;
  const int fd_;
  const Taker line_;
  LineSplitter splitter_;
  std::size_t number_ = 0;
  Pump pump_{[this] { step(); }};
  Kelvo::Ptr<Kelvo::Platform::FdControl> control_;
  bool pollable_ = true;
};

/// The messages that a command is to send: one from the command line, some number of times, or the
/// lines of standard input; each looked at before it is handed out.
class MessageSource {
 public:
  /// Gets null at the end.
  using Taker = std::function<void(const std::string* message)>;
  MessageSource(const std::string& text, std::uint64_t copies, Taker taker);

  /// Leads to one call of the taker: at once, or from the loop.
  void want();

 private:
  void takeLine(const std::optional<std::string>& line);
  void takeText();

  const Taker taker_;
  std::string text_;      // what the command line holds, as the library sends it
  std::uint64_t copies_;  // how often it is to be handed out yet
  std::size_t handedOut_ = 0;
  std::optional<Lines> lines_;  // or where the messages come from instead
  Pump pump_{[this] { takeText(); }};
};

/// The text as the library sends it.
/// @throws Failure if it must not be sent. `what` begins the sentence ("the message").
std::string sendable(std::string_view text, const std::string& what);

/// True for a line that holds nothing.
bool isBlank(std::string_view line);

/// A message from valid JSON, of any depth.
Tovik::Message messageFrom(std::string_view json);

}  // namespace tool
