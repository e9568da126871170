#pragma once

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "Api/Json/Types.h"

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

/// The first member of that name, as lookups find it; nothing without one, and of what is no
/// object.
const rapidjson::Value* findMember(const rapidjson::Value& object, std::string_view name);
/// The same, but JSON's null without one.
const rapidjson::Value& memberOf(const rapidjson::Value& object, std::string_view name);
/// The text of a string; empty of other values.
std::string_view textOf(const rapidjson::Value& value);

/// The index behind the string that begins there.
std::size_t endOfString(std::string_view json, std::size_t at);

/// What a member of an object's compact text is; empty without one.
std::string_view memberText(std::string_view json, std::string_view name);

/// True for UTF-8 without a flaw; control characters count as such here.
bool isUtf8(std::string_view text);
std::string toHex(std::string_view bytes);

/// An object's text, which is written member by member.
class Object {
 public:
  /// A string, number or boolean. Text that is no UTF-8 goes in as `escaped` shows it.
  template <class T>
  Object& add(const char* key, const T& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    if constexpr (std::is_same_v<T, bool>) {
      writer.Bool(value);
    } else if constexpr (std::is_floating_point_v<T>) {
      writer.Double(value);
    } else if constexpr (std::is_unsigned_v<T>) {
      writer.Uint64(value);
    } else if constexpr (std::is_integral_v<T>) {
      writer.Int64(value);
    } else {
      const std::string text = asUtf8(value);
      writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    }
    return raw(key, {buffer.GetString(), buffer.GetSize()});
  }
  /// JSON as it is.
  Object& raw(const char* key, std::string_view json);
  /// A name: as text if it is text; else as `escaped` shows it, and under "name_hex" exactly.
  Object& name(std::string_view name);

  std::string text() const { return text_ + "}"; }

 private:
  static std::string asUtf8(std::string_view text);

  std::string text_ = "{";
};

}  // namespace tool
