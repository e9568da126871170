#include "tool/Output.h"

#include <poll.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "tool/Report.h"

namespace tool {

namespace {

bool wantsColour(const std::string& color, bool terminal) {
  return color == "always" || (color == "auto" && terminal && std::getenv("NO_COLOR") == nullptr);
}

/// What is left to write after one attempt, or an errno value.
int writeSome(std::string_view& text) {
  const auto written = ::write(STDOUT_FILENO, text.data(), text.size());
  if (written >= 0) {
    text.remove_prefix(static_cast<std::size_t>(written));
    return 0;
  }
  if (errno == EAGAIN) {  // whoever shares the terminal may have made it non-blocking
    pollfd writable{STDOUT_FILENO, POLLOUT, 0};
    ::poll(&writable, 1, -1);
    return 0;
  }
  return errno == EINTR ? 0 : errno;
}

/// As \u1234, or two of them above the basic plane.
std::string jsonEscape(std::uint32_t character) {
  std::array<char, 16> text{};
  if (character < 0x10000) {
    std::snprintf(text.data(), text.size(), "\\u%04x", character);
  } else {
    std::snprintf(text.data(), text.size(), "\\u%04x\\u%04x", 0xD7C0 + (character >> 10U),
                  0xDC00 + (character & 0x3FFU));
  }
  return text.data();
}

/// A message may hold what no terminal should get: controls, broken UTF-8, what cannot be seen.
/// Inside JSON strings, which is where they are, an escape says the same.
std::string safeForTerminal(const std::string& json) {
  std::string result;
  for (std::string_view rest = json; !rest.empty();) {
    const auto [character, length] = decoded(rest);
    if (character == '\n' || printableLength(rest) > 0) {
      result += rest.substr(0, length);
    } else {
      result += jsonEscape(length > 0 ? character : 0xFFFD);
    }
    rest.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return result;
}

/// Writes what it is told, with numbers as they were written.
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
std::string rewritten(std::string_view json) {
  rapidjson::StringBuffer buffer;
  Verbatim<Writer> writer(buffer);
  rapidjson::MemoryStream stream(json.data(), json.size());
  rapidjson::Reader reader;
  reader.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag>(stream,
                                                                                       writer);
  return {buffer.GetString(), buffer.GetSize()};
}

/// The colours of a JSON text's parts.
std::string coloured(const std::string& json) {
  std::string result;
  for (std::size_t at = 0; at < json.size();) {
    std::size_t end = at + 1;
    if (json[at] == '"') {
      while (json[end] != '"') {
        end += json[end] == '\\' ? 2 : 1;
      }
      ++end;
      const bool key = end < json.size() && json[end] == ':';
      result += painted(json.substr(at, end - at), key ? "34" : "32", true);
    } else if (std::strchr("{}[],: \n", json[at]) != nullptr) {
      result += json[at];
    } else {
      end = std::min(json.find_first_of("{}[],: \n", at), json.size());
      result += painted(json.substr(at, end - at), "33", true);
    }
    at = end;
  }
  return result;
}

}  // namespace

Output::Output(const Common& common)
    : json_(!common.json.empty() || common.jsonByTerminal),
      quiet_(common.quiet),
      terminal_(::isatty(STDOUT_FILENO) != 0),
      colour_(wantsColour(common.color, terminal_)),
      pretty_(common.json == "pretty" || (common.json.empty() && json_ && terminal_)) {}

void Output::text(std::string_view text) {
  while (!quiet_ && !text.empty()) {
    const int error = writeSome(text);
    if (error == EPIPE) {
      throw OutputClosed{};
    }
    if (error != 0) {
      throw Failure(Exit::kOutput,
                    std::string("the results cannot be written: ") + std::strerror(error) + ".");
    }
  }
}

void Output::line(std::string_view line) {
  text(std::string(line) + "\n");
}

void Output::message(std::string_view json, const std::string& prefix) {
  using Buffer = rapidjson::StringBuffer;
  std::string text = pretty_ ? rewritten<rapidjson::PrettyWriter<Buffer>>(json)
                             : rewritten<rapidjson::Writer<Buffer>>(json);
  text = terminal_ ? safeForTerminal(text) : text;
  line(prefix + (colour_ ? coloured(text) : text));
}

void Output::message(const Tovik::Message& message) {
  this->message(Tovik::Message::toStr(message, false).data());
}

std::string painted(const std::string& text, const char* colour, bool wanted) {
  return wanted ? std::string("\x1b[") + colour + "m" + text + "\x1b[0m" : text;
}

void addString(Tovik::Message& object, const char* key, std::string_view text) {
  const std::string kept = isUtf8(text) ? std::string(text) : escaped(text);
  object.AddMember(rapidjson::StringRef(key),
                   rapidjson::Value(kept.data(), static_cast<rapidjson::SizeType>(kept.size()),
                                    object.GetAllocator()),
                   object.GetAllocator());
}

void addNameTo(Tovik::Message& object, std::string_view name) {
  addString(object, "name", name);
  if (!isUtf8(name)) {
    addString(object, "name_hex", toHex(name));
  }
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

std::string enveloped(const Tovik::Message& head, std::string_view json) {
  std::string text = Tovik::Message::toStr(head, false).data();
  text.back() = head.MemberCount() == 0 ? ' ' : ',';
  return text + R"("message":)" + std::string(json) + "}";
}

std::vector<std::string> aligned(const std::vector<Row>& rows) {
  std::vector<std::size_t> widths;
  for (const Row& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], displayWidth(row[i]));
    }
  }
  std::vector<std::string> lines;
  for (const Row& row : rows) {
    std::string& line = lines.emplace_back();
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) {
        line.append(widths[i] - displayWidth(row[i]) + 2, ' ');
      }
    }
  }
  return lines;
}

void printTable(const Row& heading, std::vector<Row> rows, Output& output) {
  if (rows.empty()) {
    return;
  }
  bool first = output.terminal();
  if (first) {
    rows.insert(rows.begin(), heading);
  }
  std::string text;
  for (const std::string& line : aligned(rows)) {
    text += std::exchange(first, false) ? painted(line, "1", output.colour()) : line;
    text += '\n';
  }
  output.text(text);
}

std::string stateText(char state) {
  switch (state) {
    case 'R':
      return "running";
    case 'S':
      return "sleeping";
    case 'D':
      return "waiting";
    case 'T':
      return "stopped";
    case 't':
      return "traced";
    case 'Z':
      return "zombie";
    default:
      return {state};
  }
}

std::string ageText(double seconds) {
  const auto whole = static_cast<std::uint64_t>(std::max(seconds, 0.0));
  return whole < 120         ? std::to_string(whole) + "s"
         : whole < 120 * 60  ? std::to_string(whole / 60) + "m"
         : whole < 48 * 3600 ? std::to_string(whole / 3600) + "h"
                             : std::to_string(whole / 86400) + "d";
}

std::string bytesText(std::uint64_t bytes) {
  static const char units[] = "KMGTPE";
  auto value = static_cast<double>(bytes);
  int unit = -1;
  for (; value >= 1000 && unit < 5; ++unit) {
    value /= 1024;
  }
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), unit >= 0 && value < 10 ? "%.1f" : "%.0f", value);
  return text.data() + (unit < 0 ? std::string() : std::string(1, units[unit]));
}

std::string cell(std::string_view text) {
  std::string result;
  for (const char byte : escaped(text)) {
    result += byte == ' ' ? std::string("\\x20") : std::string(1, byte);
  }
  return result.empty() ? "''" : result;
}

std::string timestamp() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm calendar{};
  gmtime_r(&now.tv_sec, &calendar);
  std::array<char, 32> day{};
  std::strftime(day.data(), day.size(), "%Y-%m-%dT%H:%M:%S", &calendar);
  std::array<char, 24> fraction{};
  std::snprintf(fraction.data(), fraction.size(), ".%06ldZ", now.tv_nsec / 1000);
  return std::string(day.data()) + fraction.data();
}

}  // namespace tool
