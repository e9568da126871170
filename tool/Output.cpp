#include "tool/Output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "tool/Report.h"

namespace tool {

Common common;

namespace {

bool wantsColour() {
  return common.color == "always" ||
         (common.color == "auto" && onTerminal() && std::getenv("NO_COLOR") == nullptr);
}

bool wantsIndents() {
  return common.json == "pretty" || (common.json.empty() && common.jsonByTerminal && onTerminal());
}

/// What is left to write after one attempt, or an errno value.
int writeSome(std::string_view& text) {
  const auto written = ::write(STDOUT_FILENO, text.data(), text.size());
  if (written >= 0) {
    text.remove_prefix(static_cast<std::size_t>(written));
    return 0;
  }
  if (errno == EAGAIN) {  // another process on the terminal may have made it non-blocking
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

/// The colours of a JSON text's parts.
std::string coloured(const std::string& json) {
  static const char* const separators = "{}[],: \n";
  std::string result;
  for (std::size_t at = 0, end = 0; at < json.size(); at = end) {
    const bool string = json[at] == '"';
    end =
        string ? endOfString(json, at) : std::min(json.find_first_of(separators, at), json.size());
    if (end == at) {
      result += json[end++];
    } else {
      const bool key = string && end < json.size() && json[end] == ':';
      result += painted(json.substr(at, end - at), key ? "34" : string ? "32" : "33");
    }
  }
  return result;
}

}  // namespace

void notice(std::string_view sentence) {
  if (!common.quiet) {
    report(sentence);
  }
}

void printText(std::string_view text) {
  while (!common.quiet && !text.empty()) {
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

void printLine(std::string_view line) {
  printText(std::string(line) + "\n");
}

void printJson(std::string_view json, const std::string& prefix) {
  const std::string text = rewritten(json, wantsIndents());
  const std::string shown = onTerminal() ? safeForTerminal(text) : text;
  printLine(prefix + (wantsColour() ? coloured(shown) : shown));
}

void printJson(const Tovik::Message& message) {
  printJson(std::string_view(Tovik::Message::toStr(message, false).data()));
}

void printJson(const Tovik::Message& head, const std::string& prefix, std::string_view json) {
  if (!wantsJson() || head.ObjectEmpty()) {
    return printJson(json, prefix);
  }
  std::string text = Tovik::Message::toStr(head, false).data();
  text.back() = ',';  // its numbers, too, stay as they are written
  printJson(text + "\"message\":" + std::string(json) + "}");
}

bool wantsJson() {
  return !common.json.empty() || common.jsonByTerminal;
}

bool onTerminal() {
  static const bool terminal = ::isatty(STDOUT_FILENO) != 0;
  return terminal;
}

std::string painted(const std::string& text, const char* colour) {
  return wantsColour() ? std::string("\x1b[") + colour + "m" + text + "\x1b[0m" : text;
}

std::string cell(std::string_view text) {
  std::string result = escaped(text);
  for (std::size_t at = 0; (at = result.find(' ', at)) != std::string::npos;) {
    result.replace(at, 1, "\\x20");
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
