#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tool/Json.h"
#include "tool/Kernel.h"
#include "tool/Output.h"

namespace tool {

using Row = std::vector<std::string>;

/// One thing that is shown: as a JSON object, or as a row of a table. What is not known is left out
/// of an object, and "-" in a row.
struct Entry {
  Row heading;
  Row row;
  Tovik::Message object{rapidjson::kObjectType};

  /// A cell and a member, of which either may be null.
  template <class T>
  Entry& add(const char* title, const char* key, const std::optional<T>& value,
             const std::string& shown) {
    if (key != nullptr && value) {
      addMember(object, key, *value);
    }
    if (title != nullptr) {
      heading.emplace_back(title);
      row.push_back(value ? shown : "-");
    }
    return *this;
  }
  template <class T>
  Entry& number(const char* title, const char* key, const std::optional<T>& value) {
    return add(title, key, value, std::to_string(value.value_or(0)));
  }
  Entry& text(const char* title, const char* key, const std::optional<std::string>& value) {
    return add(title, key, value ? std::optional(asUtf8(*value)) : value, cell(value.value_or("")));
  }
  Entry& name(const char* title, const std::string& name) {
    return text(title, "name", name).add(nullptr, "name_hex", JsonName(name).hex, "");
  }
};

/// As `list --long` shows it, or as `top` does.
Entry entryOf(const Listener& listener, bool live, bool withPadding = false);
/// Whether a client waits, who does not read, and what is odd about the client's process.
Entry entryOf(const Connection& connection);

/// The lines of a table whose columns fit their widest cell.
std::vector<std::string> aligned(const std::vector<Row>& rows);

/// What is printed: JSON objects at once, or a table at the end, on a terminal with a heading: a
/// pipe gets data only.
class Listing {
 public:
  void add(const Entry& entry);
  void end() const;

 private:
  std::vector<Row> rows_;
};

}  // namespace tool
