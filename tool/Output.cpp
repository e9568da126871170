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
      result += painted(json.substr(at, end - at), key ? "34" : string ? "32" : "33", true);
    }
  }
  return result;
}

}  // namespace

Output::Output()
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
  std::string text = rewritten(json, pretty_);
  text = terminal_ ? safeForTerminal(text) : text;
  line(prefix + (colour_ ? coloured(text) : text));
}

void Output::message(Object head, const std::string& prefix, std::string_view json) {
  json_ ? message(head.raw("message", json).text()) : message(json, prefix);
}

std::string painted(const std::string& text, const char* colour, bool wanted) {
  return wanted ? std::string("\x1b[") + colour + "m" + text + "\x1b[0m" : text;
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
