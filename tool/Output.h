#pragma once

#include <string>
#include <string_view>

#include "Api/Json/Types.h"
#include "tool/Options.h"

namespace tool {

/// Results, on standard output: each is written whole and at once. What happens when nobody reads
/// them any more: nothing is printed, and `closed` tells.
class Output {
 public:
  explicit Output(const Options& options);

  /// As it is, unless -q.
  void text(std::string_view text);
  /// The same with a line end.
  void line(std::string_view line);
  /// A message in the style that the options ask for: on one line unless pretty.
  void message(const Tovik::Message& message, const std::string& prefix = {});

  /// True when results are to be JSON.
  bool json() const { return json_; }
  bool colour() const { return colour_; }
  bool terminal() const { return terminal_; }
  bool closed() const { return closed_; }

 private:
  const bool json_;
  const bool quiet_;
  bool terminal_;
  bool colour_;
  bool pretty_;
  bool closed_ = false;
};

/// The colours of a JSON text's parts, for a terminal.
std::string coloured(const std::string& json);

/// The same colours for bars and the like; `colour` is "32" for green and so on.
std::string painted(const std::string& text, const char* colour, bool wanted);

/// Adds a string member. Text that is no UTF-8 goes in as `escaped` shows it.
void addString(Tovik::Message& object, const char* key, std::string_view text);

template <class Number>
void addNumber(Tovik::Message& object, const char* key, Number number) {
  object.AddMember(rapidjson::StringRef(key), number, object.GetAllocator());
}

/// The wall clock in UTC: 2030-01-31T12:00:00.000000Z.
std::string timestamp();

}  // namespace tool
