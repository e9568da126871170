#include "tool/Report.h"

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cwchar>
#include <iterator>
#include <sstream>

namespace tool {

namespace {

struct Range {
  std::uint32_t first;
  std::uint32_t last;
};

/// What a terminal shows as nothing, as a blank or in another order: it would make a text look like
/// another one. Controls and blanks; joiners, marks, fillers and selectors of single scripts; from
/// 2000 on, spaces, line separators, changes of direction, blanks of other scripts; from FE00 on,
/// selectors of variants, byte order marks, annotations, tags, and what is no character. Sorted.
constexpr Range kDeceptive[] = {
    {0x0000, 0x001F},   {0x007F, 0x00A0}, {0x00AD, 0x00AD}, {0x034F, 0x034F},   {0x0600, 0x0605},
    {0x061C, 0x061C},   {0x06DD, 0x06DD}, {0x070F, 0x070F}, {0x115F, 0x1160},   {0x1680, 0x1680},
    {0x17B4, 0x17B5},   {0x180B, 0x180F}, {0x2000, 0x200F}, {0x2028, 0x202F},   {0x205F, 0x206F},
    {0x2800, 0x2800},   {0x3000, 0x3000}, {0x3164, 0x3164}, {0xFE00, 0xFE0F},   {0xFEFF, 0xFEFF},
    {0xFFA0, 0xFFA0},   {0xFFF0, 0xFFFB}, {0xFFFE, 0xFFFF}, {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A},
    {0xE0000, 0x10FFFF}};

bool isDeceptive(std::uint32_t character) {
  const auto* const range =
      std::lower_bound(std::begin(kDeceptive), std::end(kDeceptive), character,
                       [](const Range& r, std::uint32_t wanted) { return r.last < wanted; });
  return range != std::end(kDeceptive) && character >= range->first;
}

}  // namespace

std::pair<std::uint32_t, std::size_t> decoded(std::string_view text) {
  rapidjson::MemoryStream stream(text.data(), text.size());
  unsigned character = 0;
  const bool valid = rapidjson::UTF8<>::Decode(stream, &character);
  return {character, valid ? stream.Tell() : 0};
}

Failure noServer(std::string_view name) {
  return {Exit::kNoServer, "no server listens under " + inQuotes(name) +
                               "; start it, or see the names with 'tovik list'."};
}

void report(std::string_view sentence) {
  const std::string line = "tovik: " + std::string(sentence) + "\n";
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
}

std::size_t printableLength(std::string_view text) {
  const auto [character, length] = decoded(text);
  return isDeceptive(character) ? 0 : length;
}

std::string escaped(std::string_view text) {
  static const char digits[] = "0123456789abcdef";
  std::string result;
  while (!text.empty()) {
    const std::size_t length = printableLength(text);
    const auto byte = static_cast<unsigned char>(text.front());
    if (byte == '\\') {
      result += "\\\\";
    } else if (length > 0) {
      result += text.substr(0, length);
    } else if (byte == '\n') {
      result += "\\n";
    } else {
      result += {'\\', 'x', digits[byte >> 4U], digits[byte & 15U]};
    }
    text.remove_prefix(length > 0 ? length : 1);
  }
  return result;
}

std::string inQuotes(std::string_view text) {
  return "'" + escaped(text) + "'";
}

std::string counted(std::uint64_t number, const std::string& noun) {
  return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

std::string rounded(double value) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f", value);
  return text.data();
}

std::string secondsText(double value) {
  std::ostringstream text;
  text << value << " s";
  return text.str();
}

namespace {

/// The length of the first character, and its columns.
std::pair<std::size_t, std::size_t> firstCharacter(std::string_view text) {
  const auto [character, length] = decoded(text);
  const int columns = ::wcwidth(static_cast<wchar_t>(character));
  return {std::max<std::size_t>(length, 1), columns < 0 ? 1 : static_cast<std::size_t>(columns)};
}

}  // namespace

std::size_t displayWidth(std::string_view text) {
  std::size_t width = 0;
  while (!text.empty()) {
    const auto [length, columns] = firstCharacter(text);
    width += columns;
    text.remove_prefix(length);
  }
  return width;
}

std::string fitting(std::string_view text, std::size_t columns) {
  std::size_t end = 0;
  for (std::size_t width = 0; end < text.size();) {
    const auto [length, wide] = firstCharacter(text.substr(end));
    width += wide;
    if (width > columns) {
      break;
    }
    end += length;
  }
  return std::string(text.substr(0, end));
}

std::size_t terminalColumns() {
  winsize size{};
  const bool known = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ||
                     ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0;
  return known && size.ws_col > 0 ? size.ws_col : 80;
}

}  // namespace tool
