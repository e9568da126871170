#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tool {

/// The largest text that both directions carry whole.
constexpr std::size_t kLargestText = 4094;

enum class Switch { kNone, kOn, kOff, kSwallowed };

/// What the library's readers make of one text. It is found out without their code, and without
/// recursion, so that a text of any size and depth can be looked at.
struct Lint {
  std::string notJson;                  // what is wrong and where; empty for valid JSON
  std::string compact;                  // the text as the library sends it
  std::string root;                     // "an object", "an array", ...
  Switch notification = Switch::kNone;  // how a server takes it
  std::optional<unsigned> replyStatus;  // for a reply that a blocking client accepts
  std::string noReply;     // why such a client takes it for no valid reply; empty if it does not
  std::string endsServer;  // why it ends a server's process by assertion; empty if it does not
  std::string endsClient;  // the same for a client that waits for a reply

  bool isObject() const { return root == "an object"; }
  bool fits() const { return compact.size() <= kLargestText; }
};

Lint lint(std::string_view text);

/// Why the text must not be sent to a server, followed by what to do about it; empty if it may.
std::string whyNotSendable(const Lint& lint);

/// As much of a record as reaches a reader's parser: it ends at a NUL byte.
std::string_view asRead(std::string_view record);

}  // namespace tool
