#include "tool/Report.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <sstream>

namespace tool {

namespace {

bool quiet = false;

/// The length that a UTF-8 character's first byte announces; 0 for a byte that begins none.
std::size_t announcedLength(unsigned char first) {
  if (first < 0x80) {
    return 1;
  }
  if (first >= 0xC2 && first <= 0xDF) {
    return 2;
  }
  return first >= 0xE0 && first <= 0xEF ? 3 : first >= 0xF0 && first <= 0xF4 ? 4 : 0;
}

struct Range {
  std::uint32_t first;
  std::uint32_t last;
};

/// What a terminal shows as nothing, as a blank or in another order: it would make a text look like
/// another one. Sorted.
constexpr Range kDeceptive[] = {
    {0x0000, 0x001F},    // controls
    {0x007F, 0x00A0},    // DEL, the C1 controls, the no-break space
    {0x00AD, 0x00AD},    // the soft hyphen
    {0x034F, 0x034F},    // the grapheme joiner
    {0x0600, 0x0605},    // number signs
    {0x061C, 0x061C},    // the Arabic letter mark
    {0x06DD, 0x06DD},    // the end of a verse
    {0x070F, 0x070F},    // an abbreviation mark
    {0x115F, 0x1160},    // Hangul fillers
    {0x1680, 0x1680},    // the Ogham space
    {0x17B4, 0x17B5},    // Khmer vowels that are not shown
    {0x180B, 0x180F},    // Mongolian selectors
    {0x2000, 0x200F},    // spaces, joiners and direction marks
    {0x2028, 0x202F},    // separators of lines, embeddings and overrides of direction
    {0x205F, 0x206F},    // more spaces, isolates of direction
    {0x2800, 0x2800},    // the empty Braille pattern
    {0x3000, 0x3000},    // the wide space
    {0x3164, 0x3164},    // a Hangul filler
    {0xFE00, 0xFE0F},    // selectors of variants
    {0xFEFF, 0xFEFF},    // the byte order mark
    {0xFFA0, 0xFFA0},    // a Hangul filler
    {0xFFF0, 0xFFFB},    // annotations
    {0xFFFE, 0xFFFF},    // no characters
    {0x1BCA0, 0x1BCA3},  // shorthand controls
    {0x1D173, 0x1D17A},  // music controls
    {0xE0000, 0x10FFFF}  // tags, selectors of variants, planes of private use
};

bool isDeceptive(std::uint32_t character) {
  const auto* const range =
      std::lower_bound(std::begin(kDeceptive), std::end(kDeceptive), character,
                       [](const Range& r, std::uint32_t wanted) { return r.last < wanted; });
  return range != std::end(kDeceptive) && character >= range->first;
}

}  // namespace

std::pair<std::uint32_t, std::size_t> decoded(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  const std::size_t length = announcedLength(first);
  if (length <= 1 || length > text.size()) {
    return {first, length == 1 ? 1 : 0};
  }
  std::uint32_t character = first & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xC0U) != 0x80U) {
      return {0, 0};
    }
    character = (character << 6U) | (byte & 0x3FU);
  }
  const bool surrogate = character >= 0xD800 && character <= 0xDFFF;
  const bool tooLong = (length == 3 && character < 0x800) || (length == 4 && character < 0x10000);
  return {character, surrogate || tooLong || character > 0x10FFFF ? 0 : length};
}

void report(std::string_view sentence) {
  const std::string line = "tovik: " + std::string(sentence) + "\n";
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
}

void notice(std::string_view sentence) {
  if (!quiet) {
    report(sentence);
  }
}

void setQuiet(bool wanted) {
  quiet = wanted;
}

std::size_t printableLength(std::string_view text) {
  const auto [character, length] = decoded(text);
  return isDeceptive(character) ? 0 : length;
}

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = decoded(text).second;
    if (length == 0) {
      return false;
    }
    text.remove_prefix(length);
  }
  return true;
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

std::string seconds(double value) {
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
