#pragma once

// Private. What a service and a proxy both need: the convention's texts, safe reading, the log.

#include <sys/un.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Api/Json/Types.h"
#include "Kelvo/Platform/Debug.h"

namespace Tovik::Convention {

constexpr std::size_t kLongestRecord = 4094;

/// Parses without recursion, so that no nesting can use up the stack.
inline void parse(Message& msg, const char* text) {
  msg.Parse<rapidjson::kParseDefaultFlags | rapidjson::kParseIterativeFlag>(text);
}

/// The value's compact text; nothing if it holds what JSON cannot express.
std::optional<std::string> textOf(const rapidjson::Value& value);

/// A text as JSON has it, quotes included.
std::string quoted(std::string_view text);

/// The object that `head`, a text that starts with '{', and `rest`, an object's text, make
/// together.
std::string joined(std::string head, std::string_view rest);

/// The address that belongs to a server's name.
/// @throws Kelvo::Exception if no server can have it.
sockaddr_un addressOf(const std::string& name);

/// Closes a descriptor unless it was released to somebody.
class OwnedFd {
 public:
  explicit OwnedFd(int fd) : fd_(fd) {}
  OwnedFd(const OwnedFd&) = delete;
  OwnedFd& operator=(const OwnedFd&) = delete;
  ~OwnedFd();
  int get() const noexcept { return fd_; }
  int release() noexcept { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

Kelvo::Platform::RawDebugHandler& debugHandler();

}  // namespace Tovik::Convention

//   level 0  what the application did wrong, and connections that could not be made
//   level 1  what a peer did wrong
//   level 2  sessions and connections that begin and end

// NOLINTBEGIN(bugprone-macro-parentheses): the pieces are a chain of insertions
#define TOVIK_SERVICE_LOG(level, pieces)                                                         \
  do {                                                                                           \
    if (auto& tovikHandler = ::Tovik::Convention::debugHandler(); tovikHandler.enabled(level)) { \
      Kelvo::Platform::DebugStream tovikStream;                                                  \
      tovikStream << pieces;                                                                     \
      tovikHandler.output(tovikStream, level, "Api/Service", __func__, __LINE__);                \
    }                                                                                            \
  } while (false)
// NOLINTEND(bugprone-macro-parentheses)
