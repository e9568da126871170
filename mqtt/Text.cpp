#include "mqtt/Text.h"

#include <mosquitto.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <set>

#include "Api/Service/Service.h"

namespace bridge {

namespace {

void write(std::string_view sentence) {
  const std::string line = "tovik-mqtt: " + std::string(sentence) + "\n";
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
}

/// How deep a JSON text nests. Copying and writing values takes stack for each level.
std::size_t depthOf(std::string_view text) {
  std::size_t depth = 0;
  std::size_t deepest = 0;
  bool inText = false;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    if (inText) {
      inText = c != '"';
      at += c == '\\' ? 1 : 0;
    } else if (c == '"') {
      inText = true;
    } else if (c == '[' || c == '{') {
      deepest = std::max(deepest, ++depth);
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return deepest;
}

/// Of members with the same name the first one counts, as everywhere here. A server in another
/// language may take the last, so it does not get to see it.
void keepFirstOfEach(rapidjson::Value& object) {
  std::set<std::string_view> names;
  for (auto member = object.MemberBegin(); member != object.MemberEnd();) {
    const std::string_view name(member->name.GetString(), member->name.GetStringLength());
    member = names.insert(name).second ? member + 1 : object.EraseMember(member);
  }
}

bool isUtf8(std::string_view text) {
  return mosquitto_validate_utf8(text.data(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
}

}  // namespace

void say(std::string_view sentence) {
  constexpr int kLinesASecond = 20;
  static std::chrono::steady_clock::time_point begin;
  static int lines = 0;
  const auto now = std::chrono::steady_clock::now();
  if (now - begin >= std::chrono::seconds(1)) {
    if (lines > kLinesASecond) {
      write(std::to_string(lines - kLinesASecond) + " lines were left out");
    }
    begin = now;
    lines = 0;
  }
  if (++lines <= kLinesASecond) {
    write(sentence);
  }
}

std::string levelOf(std::string_view name) {
  static const char digits[] = "0123456789ABCDEF";
  std::string printable(name);
  std::replace_if(
      printable.begin(), printable.end(), [](char c) { return c >= 0 && c < ' '; }, ' ');
  const bool asIs = isUtf8(printable);
  std::string level;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    const bool special = std::string_view("%/+#.").find(c) != std::string_view::npos;
    if (special || byte < 0x20 || byte == 0x7F || (byte >= 0x80 && !asIs)) {
      level += {'%', digits[byte >> 4U], digits[byte & 15U]};
    } else {
      level += c;
    }
  }
  return level;
}

std::optional<std::string> nameOf(std::string_view level) {
  std::string name;
  for (std::size_t at = 0; at < level.size(); ++at) {
    if (level[at] != '%') {
      name += level[at];
      continue;
    }
    unsigned char byte = 0;
    const auto code = level.substr(at + 1, 2);
    const auto [end, error] = std::from_chars(code.data(), code.data() + code.size(), byte, 16);
    if (error != std::errc() || code.size() != 2 || end != code.data() + 2) {
      return std::nullopt;
    }
    name += static_cast<char>(byte);
    at += 2;
  }
  return name;
}

std::string textOf(const rapidjson::Value& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  value.Accept(writer);
  return {buffer.GetString(), buffer.GetSize()};
}

std::string textWithout(const rapidjson::Value& object,
                        std::initializer_list<std::string_view> names) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.StartObject();
  for (const auto& member : object.GetObject()) {
    const std::string_view name(member.name.GetString(), member.name.GetStringLength());
    if (std::find(names.begin(), names.end(), name) == names.end()) {
      member.name.Accept(writer);
      member.value.Accept(writer);
    }
  }
  writer.EndObject();
  return {buffer.GetString(), buffer.GetSize()};
}

void parse(Tovik::Message& message, std::string_view payload, std::size_t longest) {
  using namespace rapidjson;
  if (payload.size() > longest) {
    throw Tovik::Refusal(EMSGSIZE, "a payload has at most " + std::to_string(longest) +
                                       " bytes, not " + std::to_string(payload.size()));
  }
  if (depthOf(payload) > kLongestRecord) {
    throw Tovik::Refusal(EINVAL, "a payload nests too deep");
  }
  constexpr unsigned kFlags = kParseIterativeFlag | kParseValidateEncodingFlag;
  message.Parse<kFlags>(payload.data(), payload.size());
  const bool hasNul = payload.find('\0') != std::string_view::npos;  // which would end the text
  if (hasNul || message.HasParseError() || !message.IsObject()) {
    throw Tovik::Refusal(EINVAL, "a payload is a JSON object in UTF-8");
  }
  keepFirstOfEach(message);
}

}  // namespace bridge
