// JSON: how a text is judged, in the readers' own order of checks; texts that are written and
// looked into without losing how their numbers are written.

#include "tool/Json.h"

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <utility>

#include "tool/Report.h"

namespace tool {

namespace {

using Value = rapidjson::Value;
using Buffer = rapidjson::StringBuffer;

constexpr const char* kKinds[] = {"null",     "a boolean", "a boolean", "an object",
                                  "an array", "a string",  "a number"};  // in RapidJSON's order

/// Strings are compared as C strings: up to a NUL, which JSON can express.
bool is(const Value& value, std::string_view text) {
  return value.IsString() && value.GetString() == text;
}

void judgeForServer(Lint& lint) {
  if (!lint.isObject()) {
    lint.endsServer = "its root is " + lint.root + " and no object";
    return;
  }
  const Value* const command = Tovik::find(lint.message, "command");
  const Value* const notification = Tovik::find(lint.message, "notification");
  if (command == nullptr || notification == nullptr) {
    return;
  }
  if (!command->IsString()) {
    lint.endsServer = R"(its "command", next to a "notification", is not a string)";
  } else if (is(*command, "set")) {
    lint.notification = notification->IsTrue()    ? Switch::kOn
                        : notification->IsFalse() ? Switch::kOff
                                                  : Switch::kSwallowed;
  }
}

void judgeForClient(Lint& lint) {
  const Value* const type = Tovik::find(lint.message, "type");
  const auto status = Tovik::get<unsigned>(lint.message, "status");
  if (!lint.isObject()) {
    lint.endsClient = "its root is " + lint.root + " and no object";
  } else if (type == nullptr) {
    lint.noReply = "it has no \"type\"";
  } else if (!status) {
    lint.noReply = "it has no \"status\" from 0 to 2147483647";
  } else if (!type->IsString()) {
    lint.endsClient = R"(its "type", next to a "status", is not a string)";
  } else if (!is(*type, "reply")) {
    lint.noReply = R"(its "type" is not "reply")";
  } else if (*status > 2147483647U) {
    lint.noReply = "its \"status\" is above 2147483647";
  } else {
    lint.replyStatus = status;
  }
}

/// Writes what the parser tells it, with numbers as they were written.
template <class Writer>
class Verbatim : public Writer {
 public:
  using Writer::Writer;
  // NOLINTNEXTLINE(readability-identifier-naming): the parser calls it by this name
  bool RawNumber(const char* text, rapidjson::SizeType length, bool) {
    return Writer::RawValue(text, length, rapidjson::kNumberType);
  }
};

template <class Writer>
std::string writtenBy(std::string_view json) {
  Buffer buffer;
  Verbatim<Writer> writer(buffer);
  rapidjson::MemoryStream stream(json.data(), json.size());
  rapidjson::Reader().Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag>(
      stream, writer);
  return {buffer.GetString(), buffer.GetSize()};
}

/// The index of what follows the value that begins there.
std::size_t endOfValue(std::string_view json, std::size_t at) {
  for (int depth = 0; at < json.size();) {
    const char c = json[at];
    if (depth == 0 && (c == ',' || c == '}')) {
      break;
    }
    depth += c == '{' || c == '[' ? 1 : c == '}' || c == ']' ? -1 : 0;
    at = c == '"' ? endOfString(json, at) : at + 1;
  }
  return at;
}

}  // namespace

Lint lint(std::string_view text) {
  Lint result;
  const std::size_t nul = text.find('\0');
  if (nul != std::string_view::npos) {
    result.notJson = "a NUL byte at byte " + std::to_string(nul + 1);
    return result;
  }
  rapidjson::MemoryStream stream(text.data(), text.size());
  auto& message = result.message;
  message.ParseStream<rapidjson::kParseIterativeFlag>(stream);
  if (message.HasParseError()) {
    const std::size_t offset = std::min(message.GetErrorOffset(), text.size());
    result.notJson = rapidjson::GetParseError_En(message.GetParseError());
    result.notJson.pop_back();  // its full stop
    result.notJson += " at byte " + std::to_string(offset + 1);
    result.cutShort = offset == text.size() && text.find_first_not_of(" \t\r\n") == text.find('{');
  } else {
    result.compact = Tovik::Message::toStr(message, false).data();
    result.root = kKinds[message.GetType()];
    judgeForServer(result);
    judgeForClient(result);
  }
  if (!result.isObject()) {
    message.SetObject();
  }
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

std::string sendable(std::string_view text, const std::string& what) {
  Lint judged = lint(text);
  const std::string why = whyNotSendable(judged);
  if (!why.empty()) {
    throw Failure(Exit::kUsage, what + " must not be sent: " + why + ".");
  }
  return std::move(judged.compact);
}

std::string_view asRead(std::string_view record) {
  return record.substr(0, record.find('\0'));
}

std::string rewritten(std::string_view json, bool pretty) {
  return pretty ? writtenBy<rapidjson::PrettyWriter<Buffer>>(json)
                : writtenBy<rapidjson::Writer<Buffer>>(json);
}

Tovik::Message messageFrom(std::string_view json) {
  Tovik::Message message;
  rapidjson::MemoryStream stream(json.data(), json.size());
  message.ParseStream<rapidjson::kParseIterativeFlag>(stream);
  return message;
}

std::size_t endOfString(std::string_view json, std::size_t at) {
  while (++at < json.size() && json[at] != '"') {
    at += json[at] == '\\' ? 1 : 0;
  }
  return std::min(at + 1, json.size());
}

std::string_view memberText(std::string_view json, std::string_view name) {
  for (std::size_t at = 1; json.substr(0, 1) == "{" && at + 1 < json.size();) {
    const std::size_t colon = endOfString(json, at);
    const std::size_t end = endOfValue(json, colon + 1);
    if (json.substr(at + 1, colon - at - 2) == name) {
      return json.substr(colon + 1, end - colon - 1);
    }
    at = end + 1;
  }
  return {};
}

bool isUtf8(std::string_view text) {
  while (!text.empty() && decoded(text).second > 0) {
    text.remove_prefix(decoded(text).second);
  }
  return text.empty();
}

std::string toHex(std::string_view bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string hex;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    hex += {digits[byte >> 4U], digits[byte & 15U]};
  }
  return hex;
}

std::string asUtf8(std::string_view text) {
  return isUtf8(text) ? std::string(text) : escaped(text);
}

JsonName::JsonName(std::string_view name)
    : text(asUtf8(name)), hex(when(!isUtf8(name), toHex(name))) {}

}  // namespace tool
