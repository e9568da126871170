#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "../../Kelvo/String.h"
#include "../Json/Types.h"

/// Keeps out of the interface what is declared inside an exported class.
#define TOVIK_INTERNAL __attribute__((visibility("hidden")))

/// @file
/// Messages from C++ values and back, without a word of RapidJSON:
///
///     auto lamp = Tovik::object("name", "hall", "on", true, "levels", std::vector{1, 2});
///     std::optional<bool> on = Tovik::get<bool>(lamp, "on");

namespace Tovik {

/// How a C++ type stands in JSON: `kName` is the JSON type's name, `is` tells whether a value can
/// be read as the type, `from` reads it, and `to` writes it. An application adds a type of its own
/// by specialising this.
template <class T, class Enable = void>
struct Json {
  static_assert(!std::is_same_v<T, T>,
                "no JSON for this type: take bool, a number, a text, an optional, a vector, a "
                "Message, or specialise Tovik::Json");
};

/// @cond INTERNAL
namespace Internal {

using Value = rapidjson::Value;
using Allocator = Message::AllocatorType;

inline void setText(Value& value, std::string_view text, Allocator& allocator) {
  value.SetString(text.data(), static_cast<rapidjson::SizeType>(text.size()), allocator);
}

template <class T>
void set(Value& value, const T& from, Allocator& allocator) {
  Json<std::decay_t<T>>::to(value, from, allocator);
}

template <class T>
bool isThere(const T& /*value*/) {
  return true;
}
template <class T>
bool isThere(const std::optional<T>& value) {
  return value.has_value();
}

inline void addMembers(Message& /*msg*/) {}

template <class T, class... Rest>
void addMembers(Message& msg, std::string_view name, const T& value, const Rest&... rest) {
  if (isThere(value)) {
    Value key;
    Value member;
    setText(key, name, msg.GetAllocator());
    set(member, value, msg.GetAllocator());
    msg.AddMember(key, member, msg.GetAllocator());
  }
  addMembers(msg, rest...);
}

}  // namespace Internal
/// @endcond

/// A message that is an object with these members: names and values in turns. Values are bool,
/// numbers, texts, `nullptr`, optionals (an empty one leaves its member out), vectors, and other
/// messages, nested as one likes.
template <class... Members>
Message object(const Members&... namesAndValues) {
  static_assert(sizeof...(namesAndValues) % 2 == 0, "object takes names and values in turns");
  Message msg;
  msg.SetObject();
  if constexpr (sizeof...(namesAndValues) % 2 == 0) {
    Internal::addMembers(msg, namesAndValues...);
  }
  return msg;
}

/// The member of that name, or null if there is none or `object` is no object.
inline const rapidjson::Value* find(const rapidjson::Value& object, std::string_view name) {
  if (!object.IsObject()) {
    return nullptr;
  }
  const rapidjson::Value key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
  const auto member = object.FindMember(key);
  return member == object.MemberEnd() ? nullptr : &member->value;
}

/// The member of that name; nothing if there is none or it cannot be read as a `T`.
template <class T>
std::optional<T> get(const rapidjson::Value& object, std::string_view name) {
  const auto* value = find(object, name);
  return value != nullptr && Json<T>::is(*value) ? std::optional<T>(Json<T>::from(*value))
                                                 : std::nullopt;
}

/// @cond INTERNAL
template <>
struct Json<bool> {
  static constexpr const char* kName = "boolean";
  static bool is(const rapidjson::Value& value) { return value.IsBool(); }
  static bool from(const rapidjson::Value& value) { return value.GetBool(); }
  static void to(rapidjson::Value& value, bool from, Internal::Allocator& /*allocator*/) {
    value.SetBool(from);
  }
};

template <class T>
struct Json<T, std::enable_if_t<std::is_integral_v<T>>> {
  static constexpr const char* kName = "integer";
  using Wide = std::conditional_t<std::is_signed_v<T>, std::int64_t, std::uint64_t>;

  static bool is(const rapidjson::Value& value) {
    return value.Is<Wide>() && value.Get<Wide>() >= Wide{std::numeric_limits<T>::min()} &&
           value.Get<Wide>() <= Wide{std::numeric_limits<T>::max()};
  }
  static T from(const rapidjson::Value& value) { return static_cast<T>(value.Get<Wide>()); }
  static void to(rapidjson::Value& value, T from, Internal::Allocator& /*allocator*/) {
    value.Set<Wide>(Wide{from});
  }
};

template <class T>
struct Json<T, std::enable_if_t<std::is_floating_point_v<T>>> {
  static constexpr const char* kName = "number";
  static bool is(const rapidjson::Value& value) { return value.IsNumber(); }
  static T from(const rapidjson::Value& value) { return static_cast<T>(value.GetDouble()); }
  static void to(rapidjson::Value& value, T from, Internal::Allocator& /*allocator*/) {
    value.SetDouble(static_cast<double>(from));
  }
};

/// Texts; only std::string can be read, since a view would outlive its message too easily.
template <class T>
struct Json<T, std::enable_if_t<std::is_convertible_v<const T&, std::string_view>>> {
  static constexpr const char* kName = "string";
  static bool is(const rapidjson::Value& value) { return value.IsString(); }
  static T from(const rapidjson::Value& value) {
    static_assert(std::is_same_v<T, std::string>, "read texts as std::string");
    return T(value.GetString(), value.GetStringLength());
  }
  static void to(rapidjson::Value& value, std::string_view from, Internal::Allocator& allocator) {
    Internal::setText(value, from, allocator);
  }
};

template <>
struct Json<std::nullptr_t> {
  static constexpr const char* kName = "null";
  static void to(rapidjson::Value& value, std::nullptr_t, Internal::Allocator& /*allocator*/) {
    value.SetNull();
  }
};

template <class T>
struct Json<std::optional<T>> {
  static constexpr const char* kName = Json<T>::kName;
  static bool is(const rapidjson::Value& value) { return value.IsNull() || Json<T>::is(value); }
  static std::optional<T> from(const rapidjson::Value& value) {
    return value.IsNull() ? std::nullopt : std::optional<T>(Json<T>::from(value));
  }
  static void to(rapidjson::Value& value, const std::optional<T>& from,
                 Internal::Allocator& allocator) {
    value.SetNull();
    if (from.has_value()) {
      Internal::set(value, *from, allocator);
    }
  }
};

template <class T>
struct Json<std::vector<T>> {
  static constexpr const char* kName = "array";
  static bool is(const rapidjson::Value& value) {
    return value.IsArray() && std::all_of(value.Begin(), value.End(),
                                          [](const auto& each) { return Json<T>::is(each); });
  }
  static std::vector<T> from(const rapidjson::Value& value) {
    std::vector<T> elements;
    elements.reserve(value.Size());
    for (const auto& element : value.GetArray()) {
      elements.push_back(Json<T>::from(element));
    }
    return elements;
  }
  static void to(rapidjson::Value& value, const std::vector<T>& from,
                 Internal::Allocator& allocator) {
    value.SetArray();
    for (const auto& element : from) {
      rapidjson::Value added;
      Internal::set(added, static_cast<const T&>(element), allocator);  // bool: a proxy otherwise
      value.PushBack(added, allocator);
    }
  }
};

/// Any JSON, copied.
template <class T>
struct Json<T, std::enable_if_t<std::is_base_of_v<rapidjson::Value, T>>> {
  static constexpr const char* kName = "any";
  static bool is(const rapidjson::Value& /*value*/) { return true; }
  static Message from(const rapidjson::Value& value) {
    static_assert(std::is_same_v<T, Message>, "read any JSON as a Message");
    Message copy;
    copy.CopyFrom(value, copy.GetAllocator());
    return copy;
  }
  static void to(rapidjson::Value& value, const rapidjson::Value& from,
                 Internal::Allocator& allocator) {
    value.CopyFrom(from, allocator);
  }
};
/// @endcond

}  // namespace Tovik
