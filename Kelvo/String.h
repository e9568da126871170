#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>

#include "Export.h"

/// The base library: strings, counted handles and exceptions.
namespace Kelvo {

/// A string of bytes in no particular encoding. It may hold NUL bytes; `data()` always ends in one
/// that is not counted.
class KELVO_API String {
 public:
  String() = default;
  /// Copies `text` up to its NUL. `text` must not be null.
  String(const char* text) : bytes_(text) {}
  /// Takes all the bytes, NULs included.
  String(std::string bytes) noexcept : bytes_(std::move(bytes)) {}

  /// The bytes and a NUL, until the string is changed.
  const char* data() const noexcept { return bytes_.c_str(); }
  /// In bytes, as a `std::string` has them.
  /// @{
  std::size_t size() const noexcept { return bytes_.size(); }
  bool empty() const noexcept { return bytes_.empty(); }
  void clear() noexcept { bytes_.clear(); }
  void append(std::string_view bytes) { bytes_.append(bytes); }
  /// @}

  /// All the bytes, until the string is changed.
  operator std::string_view() const noexcept { return bytes_; }

  /// Byte by byte.
  /// @{
  friend bool operator==(const String& a, const String& b) noexcept { return a.bytes_ == b.bytes_; }
  friend bool operator!=(const String& a, const String& b) noexcept { return a.bytes_ != b.bytes_; }
  /// @}

 private:
  std::string bytes_;
};

/// Inserts all the string's bytes, as for a `std::string`.
KELVO_API std::ostream& operator<<(std::ostream& out, const String& string);

}  // namespace Kelvo
