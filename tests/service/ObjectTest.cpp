// Messages from C++ values and back.

#include "Api/Service/Object.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace {

using Tovik::get;
using Tovik::object;

std::string text(const Tovik::Message& msg) {
  return Tovik::Message::toStr(msg, false).data();
}

Tovik::Message with(const std::string& value) {
  Tovik::Message msg;
  msg.Parse((R"({"x":)" + value + "}").c_str());
  return msg;
}

TEST(Object, TakesValuesOfManyTypes) {
  const std::string name = "hall";
  EXPECT_EQ(text(object("on", true, "name", name, "view", std::string_view("v"), "count", 3U,
                        "level", 0.5, "small", -1, "text", "t", "none", nullptr)),
            R"({"on":true,"name":"hall","view":"v","count":3,"level":0.5,"small":-1,"text":"t",)"
            R"("none":null})");
}

TEST(Object, TakesListsAndObjects) {
  EXPECT_EQ(text(object("list", std::vector{1, 2}, "flags", std::vector<bool>{true, false},
                        "nested", object("deeper", object("x", 1)))),
            R"({"list":[1,2],"flags":[true,false],"nested":{"deeper":{"x":1}}})");
}

TEST(Object, LeavesOutWhatIsEmpty) {
  EXPECT_EQ(text(object("a", std::optional<int>(1), "b", std::optional<int>())), R"({"a":1})");
  EXPECT_EQ(text(object("a", std::vector<std::optional<int>>{1, {}})), R"({"a":[1,null]})");
  EXPECT_EQ(text(object()), "{}");
}

TEST(Object, KeepsAllBytesOfATextAndAllBitsOfANumber) {
  const auto msg = object("nul", std::string("a\0b", 3), "big", UINT64_MAX, "low", INT64_MIN);
  EXPECT_EQ(get<std::string>(msg, "nul"), std::string("a\0b", 3));
  EXPECT_EQ(get<std::uint64_t>(msg, "big"), UINT64_MAX);
  EXPECT_EQ(get<std::int64_t>(msg, "low"), INT64_MIN);
}

TEST(Object, GivesItsMembersAsTheirTypes) {
  EXPECT_EQ(get<bool>(with("true"), "x"), true);
  EXPECT_EQ(get<double>(with("1"), "x"), 1.0);
  EXPECT_EQ(get<std::vector<int>>(with("[1,2]"), "x"), (std::vector{1, 2}));
  EXPECT_EQ(text(*get<Tovik::Message>(with(R"({"a":[]})"), "x")), R"({"a":[]})");
}

TEST(Object, GivesNothingForAMemberOfAnotherType) {
  EXPECT_EQ(get<bool>(with("1"), "x"), std::nullopt);
  EXPECT_EQ(get<std::uint8_t>(with("256"), "x"), std::nullopt);
  EXPECT_EQ(get<std::uint8_t>(with("255"), "x"), 255);
  EXPECT_EQ(get<unsigned>(with("-1"), "x"), std::nullopt);
  EXPECT_EQ(get<int>(with("1.0"), "x"), std::nullopt);
  EXPECT_EQ(get<std::string>(with("null"), "x"), std::nullopt);
  EXPECT_EQ(get<std::vector<int>>(with("[1,\"2\"]"), "x"), std::nullopt);
  EXPECT_EQ(get<int>(with("1"), "y"), std::nullopt);
  EXPECT_EQ(get<int>(Tovik::Message(), "x"), std::nullopt);
}

}  // namespace
