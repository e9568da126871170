#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Api/Json/Types.h"
#include "Api/Service/Object.h"

namespace tool {

/// The largest text that both directions carry whole.
constexpr std::size_t kLargestText = 4094;

enum class Switch { kNone, kOn, kOff, kSwallowed };

/// What the library's readers make of one text. It is found out without their code, and without
/// recursion, so that a text of any size and depth can be looked at.
struct Lint {
  std::string notJson;                  // what is wrong and where; empty for valid JSON
  bool cutShort = false;                // an object that may go on in the next line
  Tovik::Message message;               // the text's content; an empty object unless it is one
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

/// The text as the library sends it.
/// @throws Failure if it must not be sent. `what` begins the sentence ("the message").
std::string sendable(std::string_view text, const std::string& what);

/// As much of a record as reaches a reader's parser: it ends at a NUL byte.
std::string_view asRead(std::string_view record);

/// Valid JSON on one line, or indented, whose numbers stay as they are written.
std::string rewritten(std::string_view json, bool pretty = false);

/// A message from valid JSON, of any depth.
Tovik::Message messageFrom(std::string_view json);

/// The index behind the string that begins there.
std::size_t endOfString(std::string_view json, std::size_t at);

/// What a member of an object's compact text is; empty without one.
std::string_view memberText(std::string_view json, std::string_view name);

/// True for UTF-8 without a flaw; control characters count as such here.
bool isUtf8(std::string_view text);
std::string toHex(std::string_view bytes);

/// The text if it is UTF-8, which JSON needs; else as `escaped` shows it.
std::string asUtf8(std::string_view text);

/// What `asUtf8` leaves of some bytes, and if that is not them, they in hexadecimal digits.
struct JsonName {
  explicit JsonName(std::string_view name);
  std::string text;
  std::optional<std::string> hex;
};

/// The value, or nothing, which `Tovik::object` leaves out.
template <class T>
std::optional<T> when(bool known, T value) {
  return known ? std::optional<T>(std::move(value)) : std::nullopt;
}

/// A further member of an object.
template <class T>
void addMember(Tovik::Message& object, std::string_view name, const T& value) {
  auto& memory = object.GetAllocator();
  rapidjson::Value key(name.data(), static_cast<rapidjson::SizeType>(name.size()), memory);
  rapidjson::Value member;
  Tovik::Json<T>::to(member, value, memory);
  object.AddMember(key, member, memory);
}

}  // namespace tool
