#pragma once

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "Api/Json/Types.h"

namespace bridge {

constexpr std::size_t kLongestRecord = 4094;

/// Writes "tovik-mqtt: " and the sentence to standard error. What others have sent stands in it
/// only escaped. No more than 20 in a second; how many were left out is said afterwards.
void say(std::string_view sentence);

/// A name as one level of a topic: what levels must not hold is written as % and two digits.
std::string levelOf(std::string_view name);
/// The name that a level stands for; nothing if it stands for none.
std::optional<std::string> nameOf(std::string_view level);

/// The value's compact text.
std::string textOf(const rapidjson::Value& value);
/// An object's compact text without these members.
std::string textWithout(const rapidjson::Value& object,
                        std::initializer_list<std::string_view> names);

/// Parses what a broker has delivered. Throws a `Tovik::Refusal` unless it is a JSON object in
/// UTF-8 that is no longer than `longest`. Of members with the same name it keeps the first.
void parse(Tovik::Message& message, std::string_view payload, std::size_t longest = kLongestRecord);

}  // namespace bridge
