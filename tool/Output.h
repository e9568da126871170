#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Api/Json/Types.h"
#include "tool/Verb.h"

namespace tool {

/// Results, on standard output: each is written whole and at once.
class Output {
 public:
  explicit Output(const Common& common);

  // All of these throw `OutputClosed` if nobody reads any more, and a failure if what is read
  // cannot be written.

  /// As it is, unless -q.
  void text(std::string_view text);
  /// The same with a line end.
  void line(std::string_view line);
  /// A message in the style that the options ask for: on one line unless pretty. JSON text keeps
  /// its numbers as they are written.
  void message(std::string_view json, const std::string& prefix = {});
  void message(const Tovik::Message& message);

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

/// Adds a string member. Text that is no UTF-8 goes in as `escaped` shows it.
void addString(Tovik::Message& object, const char* key, std::string_view text);

template <class Number>
void addMember(Tovik::Message& object, const char* key, Number number) {
  object.AddMember(rapidjson::StringRef(key), number, object.GetAllocator());
}

/// Adds a name: as text if it is text; else as `escaped` shows it, and under "name_hex" exactly.
void addNameTo(Tovik::Message& object, std::string_view name);

std::string toHex(std::string_view bytes);

/// `head`, an object, with the JSON text as its last member: "message".
std::string enveloped(const Tovik::Message& head, std::string_view json);

/// The lines of a table whose columns fit their widest cell.
using Row = std::vector<std::string>;
std::vector<std::string> aligned(const std::vector<Row>& rows);

/// Prints a table, on a terminal with a heading: a pipe gets data only.
void printTable(const Row& heading, std::vector<Row> rows, Output& output);

/// A text as one cell: blanks inside it, or nothing at all, must not look like missing columns.
std::string cell(std::string_view text);

/// "running", "stopped" and so on, for the letter that /proc has.
std::string stateText(char state);
/// "5s", "3m", "2h", "9d".
std::string ageText(double seconds);
/// "512", "1.5K", "30M".
std::string bytesText(std::uint64_t bytes);

/// The wall clock in UTC: 2030-01-31T12:00:00.000000Z.
std::string timestamp();

}  // namespace tool
