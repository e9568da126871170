#include "tool/Output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

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

}  // namespace

Output::Output(const Options& options)
    : json_(options.jsonStyle() != JsonStyle::kNone),
      quiet_(options.quiet),
      terminal_(::isatty(STDOUT_FILENO) != 0),
      colour_(wantsColour(options.color, terminal_)),
      pretty_(options.jsonStyle() == JsonStyle::kPretty ||
              (options.jsonStyle() == JsonStyle::kByTerminal && terminal_)) {}

void Output::text(std::string_view text) {
  if (quiet_ || closed_) {
    return;
  }
  while (!text.empty()) {
    const int error = writeSome(text);
    if (error == EPIPE) {
      closed_ = true;
      return;
    }
    if (error != 0) {
      throw Failure(Exit::kLost, std::string("the result cannot be written: ") +
                                     std::strerror(error) + "; make room or redirect it.");
    }
  }
}

void Output::line(std::string_view line) {
  text(std::string(line) + "\n");
}

void Output::message(const Tovik::Message& message, const std::string& prefix) {
  std::string json = Tovik::Message::toStr(message, pretty_).data();
  if (terminal_) {
    json = safeForTerminal(json);
  }
  line(prefix + (colour_ ? coloured(json) : json));
}

std::string painted(const std::string& text, const char* colour, bool wanted) {
  return wanted ? std::string("\x1b[") + colour + "m" + text + "\x1b[0m" : text;
}

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

void addString(Tovik::Message& object, const char* key, std::string_view text) {
  const std::string kept = isUtf8(text) ? std::string(text) : escaped(text);
  object.AddMember(rapidjson::StringRef(key),
                   rapidjson::Value(kept.data(), static_cast<rapidjson::SizeType>(kept.size()),
                                    object.GetAllocator()),
                   object.GetAllocator());
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
