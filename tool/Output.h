#pragma once

#include <string>
#include <string_view>

#include "tool/Json.h"
#include "tool/Verb.h"

namespace tool {

/// Results, on standard output: each is written whole and at once.
class Output {
 public:
  Output();

  // All of these throw `OutputClosed` if nobody reads any more, and a failure if what is read
  // cannot be written.

  /// As it is, unless -q.
  void text(std::string_view text);
  /// The same with a line end.
  void line(std::string_view line);
  /// JSON in the style that the options ask for: on one line unless pretty, with its numbers as
  /// they are written.
  void message(std::string_view json, const std::string& prefix = {});
  /// The same for one that came from somewhere, with the time and so on: inside an object for JSON,
  /// before it otherwise.
  void message(Object head, const std::string& prefix, std::string_view json);

  /// True when results are to be JSON.
  bool json() const { return json_; }
  bool colour() const { return colour_; }
  bool terminal() const { return terminal_; }

 private:
  const bool json_;
  const bool quiet_;
  bool terminal_;
  bool colour_;
  bool pretty_;
};

/// The text in a terminal's colours; `colour` is "32" for green and so on.
std::string painted(const std::string& text, const char* colour, bool wanted);

/// A text as one cell: blanks inside it, or nothing at all, must not look like missing columns.
std::string cell(std::string_view text);

/// The wall clock in UTC: 2030-01-31T12:00:00.000000Z.
std::string timestamp();

}  // namespace tool
