#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// What the library has to make of a text, found out by a JSON reader of our own. It shares no code
// with the library or with the JSON library under it, so that the two can be held against each
// other.

namespace fuzz {

/// A member's value, as far as a reader may look at it.
struct Value {
  enum class Kind : std::uint8_t { kAbsent, kString, kTrue, kFalse, kUnsigned, kOther };
  Kind kind = Kind::kAbsent;
  std::string string;
  std::uint32_t number = 0;  // for kUnsigned: what fits 32 bits

  /// A string that equals `text` up to its first NUL.
  bool is(std::string_view text) const {
    return kind == Kind::kString && std::string_view(string.c_str()) == text;
  }
  friend bool operator==(const Value& a, const Value& b) {
    return a.kind == b.kind && a.string == b.string && a.number == b.number;
  }
};

struct Text {
  enum class Root : std::uint8_t { kNotJson, kObject, kOther };
  Root root = Root::kNotJson;
  /// It holds a number near the largest double or above. Some of these parse, and some of those as
  /// infinity, which cannot be written back. No prediction is made for the text.
  bool huge = false;
  // An object's members of these names; of several with one name, the first.
  Value command, notification, type, status;

  friend bool operator==(const Text& a, const Text& b) {
    return a.root == b.root && a.command == b.command && a.notification == b.notification &&
           a.type == b.type && a.status == b.status;
  }
};

/// Reads a text, which ends at its first NUL byte.
Text read(std::string_view text);

/// What a server's connection does with a text.
enum class AtServer : std::uint8_t {
  kInvalid,
  kStops,
  kSwallowed,
  kSwitchOn,
  kSwitchOff,
  kHandled
};
AtServer atServer(const Text& text);

/// What a blocking client that waits for a reply does with a text.
enum class AtClient : std::uint8_t { kInvalid, kStops, kNoReply, kBadStatus, kStatus };
AtClient atClient(const Text& text);

/// The condition that fails in the assertion which ends the process, at either end.
std::string_view failedCondition(const Text& text);

}  // namespace fuzz
