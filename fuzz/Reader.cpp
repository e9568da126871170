// A recursive-descent reader of JSON, and below it the acceptance rules in their fixed order.

#include "fuzz/Reader.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <limits>
#include <optional>

namespace fuzz {

namespace {

using Kind = Value::Kind;

class Reader {
 public:
  explicit Reader(std::string_view text) : rest_(text.substr(0, text.find('\0'))) {}

  Text run() {
    Text text;
    skipSpace();
    const bool isObject = peek() == '{';
    const auto value = isObject ? object(&text) : this->value();
    skipSpace();
    if (!value || !rest_.empty()) {
      text = {};
    } else {
      text.root = isObject ? Text::Root::kObject : Text::Root::kOther;
    }
    text.huge = huge_;
    return text;
  }

 private:
  using Result = std::optional<Value>;  // empty: not JSON
  static Result other() { return Value{Kind::kOther, {}, 0}; }

  char peek() const { return rest_.empty() ? '\0' : rest_.front(); }
  bool take(std::string_view expected) {
    if (rest_.substr(0, expected.size()) != expected) {
      return false;
    }
    rest_.remove_prefix(expected.size());
    return true;
  }
  void skipSpace() {
    rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t\r\n"), rest_.size()));
  }

  Result value() {
    switch (peek()) {
      case '{':
        return object(nullptr);
      case '[':
        return array();
      case '"':
        return string();
      case 't':
        return take("true") ? Result(Value{Kind::kTrue, {}, 0}) : std::nullopt;
      case 'f':
        return take("false") ? Result(Value{Kind::kFalse, {}, 0}) : std::nullopt;
      case 'n':
        return take("null") ? other() : std::nullopt;
      default:
        return number();
    }
  }

  Result object(Text* root) {
    take("{");
    skipSpace();
    if (take("}")) {
      return other();
    }
    do {
      skipSpace();
      const Result name = peek() == '"' ? string() : std::nullopt;
      skipSpace();
      if (!name || !take(":")) {
        return std::nullopt;
      }
      skipSpace();
      const Result member = value();
      if (!member) {
        return std::nullopt;
      }
      if (root != nullptr) {
        note(*root, name->string, *member);
      }
      skipSpace();
    } while (take(","));
    return take("}") ? other() : std::nullopt;
  }

  static void note(Text& text, const std::string& name, const Value& value) {
    for (auto [wanted, found] : {std::pair<std::string_view, Value*>{"command", &text.command},
                                 {"notification", &text.notification},
                                 {"type", &text.type},
                                 {"status", &text.status}}) {
      if (name == wanted && found->kind == Kind::kAbsent) {
        *found = value;
      }
    }
  }

  Result array() {
    take("[");
    skipSpace();
    if (take("]")) {
      return other();
    }
    do {
      skipSpace();
      if (!value()) {
        return std::nullopt;
      }
      skipSpace();
    } while (take(","));
    return take("]") ? other() : std::nullopt;
  }

  /// Bytes of 0x20 and above stand for themselves, whether they are UTF-8 or not.
  Result string() {
    take("\"");
    Value value{Kind::kString, {}, 0};
    while (!take("\"")) {
      if (rest_.empty() || static_cast<unsigned char>(peek()) < 0x20) {
        return std::nullopt;
      }
      if (!take("\\")) {
        value.string += peek();
        rest_.remove_prefix(1);
      } else if (!escape(value.string)) {
        return std::nullopt;
      }
    }
    return value;
  }

  bool escape(std::string& out) {
    constexpr std::string_view kLetters = "\"\\/bfnrt";
    constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
    if (take("u")) {
      return unicode(out);
    }
    const auto at = rest_.empty() ? std::string_view::npos : kLetters.find(peek());
    if (at == std::string_view::npos) {
      return false;
    }
    out += kMeanings[at];
    rest_.remove_prefix(1);
    return true;
  }

  /// A high surrogate needs its low one; a low one alone is let through.
  bool unicode(std::string& out) {
    auto code = hex4();
    if (code && *code >= 0xD800 && *code <= 0xDBFF) {
      const auto low = take("\\u") ? hex4() : std::nullopt;
      if (!low || *low < 0xDC00 || *low > 0xDFFF) {
        return false;
      }
      code = 0x10000 + ((*code - 0xD800) << 10) + (*low - 0xDC00);
    }
    if (code) {
      encode(*code, out);
    }
    return code.has_value();
  }

  std::optional<std::uint32_t> hex4() {
    std::uint32_t code = 0;
    const auto digits = rest_.substr(0, 4);
    const auto end = std::from_chars(digits.data(), digits.data() + digits.size(), code, 16).ptr;
    if (end != digits.data() + 4) {
      return std::nullopt;
    }
    rest_.remove_prefix(4);
    return code;
  }

  static void encode(std::uint32_t code, std::string& out) {
    const int more = code < 0x80 ? 0 : code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
    constexpr std::uint32_t kFirst[] = {0, 0xC0, 0xE0, 0xF0};
    out += static_cast<char>(kFirst[more] | code >> 6 * more);
    for (int left = more - 1; left >= 0; --left) {
      out += static_cast<char>(0x80 | (code >> 6 * left & 0x3F));
    }
  }

  std::string_view digits() {
    const auto length = std::min(rest_.find_first_not_of("0123456789"), rest_.size());
    const auto found = rest_.substr(0, length);
    rest_.remove_prefix(length);
    return found;
  }

  /// The number's value, or the largest if it is larger.
  static std::uint64_t valueOf(std::string_view digits) {
    std::uint64_t value = 0;
    const auto error = std::from_chars(digits.data(), digits.data() + digits.size(), value).ec;
    return error == std::errc::result_out_of_range ? std::numeric_limits<std::uint64_t>::max() / 2
                                                   : value;
  }

  Result number() {
    const bool minus = take("-");
    const auto whole = take("0") ? std::string_view("0") : digits();
    const bool hasFraction = take(".");
    const auto fraction = hasFraction ? digits() : std::string_view();
    const bool hasExponent = take("e") || take("E");
    const bool expMinus = hasExponent && !take("+") && take("-");
    const auto exponent = hasExponent ? digits() : std::string_view();
    huge_ = huge_ || whole.size() + (expMinus ? 0 : valueOf(exponent)) > 308;
    if (whole.empty() || (hasFraction && fraction.empty()) || (hasExponent && exponent.empty())) {
      return std::nullopt;
    }
    const auto value = valueOf(whole);
    const bool isUnsigned = !hasFraction && !hasExponent && (minus ? value == 0 : value >> 32 == 0);
    return isUnsigned ? Value{Kind::kUnsigned, {}, static_cast<std::uint32_t>(value)} : other();
  }

  std::string_view rest_;
  bool huge_ = false;
};

}  // namespace

Text read(std::string_view text) {
  return Reader(text).run();
}

// --- the acceptance rules, each check in its place ---

AtServer atServer(const Text& text) {
  if (text.root == Text::Root::kNotJson) {
    return AtServer::kInvalid;
  }
  if (text.root != Text::Root::kObject) {
    return AtServer::kStops;
  }
  if (text.command.kind == Kind::kAbsent || text.notification.kind == Kind::kAbsent) {
    return AtServer::kHandled;
  }
  if (text.command.kind != Kind::kString) {
    return AtServer::kStops;
  }
  if (!text.command.is("set")) {
    return AtServer::kHandled;
  }
  return text.notification.kind == Kind::kTrue    ? AtServer::kSwitchOn
         : text.notification.kind == Kind::kFalse ? AtServer::kSwitchOff
                                                  : AtServer::kSwallowed;
}

AtClient atClient(const Text& text) {
  if (text.root == Text::Root::kNotJson) {
    return AtClient::kInvalid;
  }
  if (text.root != Text::Root::kObject) {
    return AtClient::kStops;
  }
  if (text.type.kind == Kind::kAbsent || text.status.kind != Kind::kUnsigned) {
    return AtClient::kNoReply;
  }
  if (text.type.kind != Kind::kString) {
    return AtClient::kStops;
  }
  if (!text.type.is("reply")) {
    return AtClient::kNoReply;
  }
  return text.status.number > 2147483647U ? AtClient::kBadStatus : AtClient::kStatus;
}

std::string_view failedCondition(const Text& text) {
  return text.root == Text::Root::kObject ? "IsString()" : "IsObject()";
}

}  // namespace fuzz
