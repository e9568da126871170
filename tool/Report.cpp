#include "tool/Report.h"

#include <unistd.h>

#include <cstdint>
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

/// The character at the start of `text` and its length; the length is 0 if it is flawed.
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

}  // namespace

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
  const bool control = character < 0x20 || (character >= 0x7F && character < 0xA0);
  return control ? 0 : length;
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

}  // namespace tool
