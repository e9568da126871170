// How a text is judged: one pass of the streaming parser writes the compact text and notes the root
// and the members that the readers look up; the verdicts are then drawn in the readers' own order
// of checks.

#include "tool/Lint.h"

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>

namespace tool {

namespace {

/// A value as far as the readers care about it.
struct Seen {
  enum class Kind { kNothing, kString, kFalse, kTrue, kUnsigned, kOther };
  Kind kind = Kind::kNothing;
  std::string string;
  unsigned number = 0;
};

using Kind = Seen::Kind;

/// Gets the parser's events. Of members of the same name, lookups find the first, so later ones
/// change nothing.
class Observer {
 public:
  // NOLINTBEGIN(readability-identifier-naming): the parser calls them by these names
  bool Null() { return value({Kind::kOther, {}, 0}, "null") && writer_.Null(); }
  bool Bool(bool b) {
    return value({b ? Kind::kTrue : Kind::kFalse, {}, 0}, "a boolean") && writer_.Bool(b);
  }
  bool Int(int i) { return integer(i >= 0, static_cast<unsigned>(i)) && writer_.Int(i); }
  bool Uint(unsigned u) { return integer(true, u) && writer_.Uint(u); }
  bool Int64(std::int64_t i) { return integer(false, 0) && writer_.Int64(i); }
  bool Uint64(std::uint64_t u) { return integer(false, 0) && writer_.Uint64(u); }
  bool Double(double d) { return integer(false, 0) && writer_.Double(d); }
  bool RawNumber(const char*, rapidjson::SizeType, bool) { return false; }  // never asked for
  bool String(const char* text, rapidjson::SizeType size, bool) {
    return value({Kind::kString, std::string(text, size), 0}, "a string") &&
           writer_.String(text, size);
  }
  bool StartObject() { return open("an object") && writer_.StartObject(); }
  bool Key(const char* text, rapidjson::SizeType size, bool) {
    member_ = depth_ == 1 && rootIsObject_ ? find(std::string_view(text, size)) : nullptr;
    return writer_.Key(text, size);
  }
  bool EndObject(rapidjson::SizeType) { return close() && writer_.EndObject(); }
  bool StartArray() { return open("an array") && writer_.StartArray(); }
  bool EndArray(rapidjson::SizeType) { return close() && writer_.EndArray(); }
  // NOLINTEND(readability-identifier-naming)

  const std::string& root() const { return root_; }
  std::string compact() const { return {buffer_.GetString(), buffer_.GetSize()}; }

  Seen command, notification, type, status;

 private:
  Seen* find(std::string_view name) {
    Seen* const found = name == "command"        ? &command
                        : name == "notification" ? &notification
                        : name == "type"         ? &type
                        : name == "status"       ? &status
                                                 : nullptr;
    return found != nullptr && found->kind == Kind::kNothing ? found : nullptr;
  }

  bool integer(bool isUnsigned, unsigned number) {
    return value({isUnsigned ? Kind::kUnsigned : Kind::kOther, {}, number}, "a number");
  }

  bool value(Seen seen, const char* name) {
    if (depth_ == 0) {
      root_ = name;
    }
    if (member_ != nullptr) {
      *member_ = std::move(seen);
      member_ = nullptr;
    }
    return true;
  }

  bool open(const char* name) {
    value({Kind::kOther, {}, 0}, name);
    rootIsObject_ = root_ == "an object";
    ++depth_;
    return true;
  }

  bool close() {
    --depth_;
    return true;
  }

  rapidjson::StringBuffer buffer_;
  rapidjson::Writer<rapidjson::StringBuffer> writer_{buffer_};
  std::string root_;
  bool rootIsObject_ = false;
  std::size_t depth_ = 0;
  Seen* member_ = nullptr;  // what the next value belongs to
};

/// Strings are compared as C strings: up to a NUL, which JSON can express.
bool is(const Seen& seen, const char* text) {
  return seen.kind == Kind::kString && seen.string.c_str() == std::string_view(text);
}

void judgeForServer(Lint& lint, const Observer& seen) {
  if (!lint.isObject()) {
    lint.endsServer = "its root is " + lint.root + " and no object";
    return;
  }
  if (seen.command.kind == Kind::kNothing || seen.notification.kind == Kind::kNothing) {
    return;
  }
  if (seen.command.kind != Kind::kString) {
    lint.endsServer = R"("command" stands beside "notification" and is no string)";
    return;
  }
  if (is(seen.command, "set")) {
    lint.notification = seen.notification.kind == Kind::kTrue    ? Switch::kOn
                        : seen.notification.kind == Kind::kFalse ? Switch::kOff
                                                                 : Switch::kSwallowed;
  }
}

void judgeForClient(Lint& lint, const Observer& seen) {
  if (!lint.isObject()) {
    lint.endsClient = "its root is " + lint.root + " and no object";
  } else if (seen.type.kind == Kind::kNothing) {
    lint.noReply = "it has no \"type\"";
  } else if (seen.status.kind != Kind::kUnsigned) {
    lint.noReply = "it has no \"status\" from 0 to 2147483647";
  } else if (seen.type.kind != Kind::kString) {
    lint.endsClient = R"("type" stands beside a "status" and is no string)";
  } else if (!is(seen.type, "reply")) {
    lint.noReply = R"(its "type" is not "reply")";
  } else if (seen.status.number > 2147483647U) {
    lint.noReply = "its \"status\" is above 2147483647";
  } else {
    lint.replyStatus = seen.status.number;
  }
}

}  // namespace

Lint lint(std::string_view text) {
  Lint result;
  const std::size_t nul = text.find('\0');
  if (nul != std::string_view::npos) {
    result.notJson = "a NUL byte at byte " + std::to_string(nul + 1);
    return result;
  }
  Observer seen;
  rapidjson::MemoryStream stream(text.data(), text.size());
  rapidjson::Reader reader;
  const auto parsed = reader.Parse<rapidjson::kParseIterativeFlag>(stream, seen);
  if (parsed.IsError()) {
    std::string what = rapidjson::GetParseError_En(parsed.Code());
    what.pop_back();  // its full stop
    result.notJson =
        what + " at byte " + std::to_string(std::min(parsed.Offset(), text.size()) + 1);
    return result;
  }
  result.compact = seen.compact();
  result.root = seen.root();
  judgeForServer(result, seen);
  judgeForClient(result, seen);
  return result;
}

std::string whyNotSendable(const Lint& lint) {
  if (!lint.notJson.empty()) {
    return "it is not JSON (" + lint.notJson + ")";
  }
  if (!lint.isObject()) {
    return lint.endsServer + ", which would end the server's process; wrap it in an object";
  }
  if (!lint.endsServer.empty()) {
    return lint.endsServer + ", which would end the server's process; give \"command\" a string";
  }
  if (!lint.fits()) {
    return "it has " + std::to_string(lint.compact.size()) + " bytes and a record carries " +
           std::to_string(kLargestText) + "; shorten it, or send the name of a file";
  }
  return {};
}

std::string_view asRead(std::string_view record) {
  return record.substr(0, record.find('\0'));
}

}  // namespace tool
