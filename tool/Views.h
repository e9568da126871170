#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tool/Json.h"
#include "tool/Kernel.h"
#include "tool/Output.h"

namespace tool {

using Row = std::vector<std::string>;

/// One thing that is shown: as a JSON object, or as a row of a table. What is not known is left out
/// of an object, and "-" in a row.
class Entry {
 public:
  explicit Entry(bool asJson) : asJson_(asJson) {}

  /// A cell and a member, of which either may be null.
  template <class T>
  Entry& add(const char* heading, const char* key, const std::optional<T>& value,
             const std::string& shown) {
    if (asJson_ && key != nullptr && value) {
      object_.add(key, *value);
    } else if (!asJson_ && heading != nullptr) {
      heading_.emplace_back(heading);
      row_.push_back(value ? shown : "-");
    }
    return *this;
  }
  template <class T>
  Entry& number(const char* heading, const char* key, const std::optional<T>& value) {
    return add(heading, key, value, std::to_string(value.value_or(0)));
  }
  Entry& text(const char* heading, const char* key, const std::optional<std::string>& value) {
    return add(heading, key, value, cell(value.value_or("")));
  }
  Entry& name(const char* heading, const std::string& name) {
    asJson_ ? void(object_.name(name)) : void();
    return text(heading, nullptr, name);
  }

  const Row& heading() const { return heading_; }
  const Row& row() const { return row_; }
  std::string json() const { return object_.text(); }

 private:
  bool asJson_;
  Row heading_;
  Row row_;
  Object object_;
};

/// A server as it was at one look.
struct Server {
  Listener listener;
  Process process;
  double cpuPercent = 0;
};

/// As `list --long` shows it, or as `top` does.
Entry entryOf(const Server& server, bool asJson, bool live, bool withPadding = false);
/// Whether a client waits, who does not read, and what is odd about the client's process.
Entry entryOf(const Connection& connection, const Process& process, bool asJson);

/// The lines of a table whose columns fit their widest cell.
std::vector<std::string> aligned(const std::vector<Row>& rows);

/// Prints JSON objects, or a table, on a terminal with a heading: a pipe gets data only.
void print(const std::vector<Entry>& entries, Output& output);

}  // namespace tool
