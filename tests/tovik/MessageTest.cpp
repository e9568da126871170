// The message's two texts, and the exception. Neither needs a socket.

#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>

#include "Api/Json/Types.h"
#include "tests/support/Support.h"

namespace {

std::string indented(const Tovik::Message& msg) {
  return std::string(std::string_view(Tovik::Message::toStr(msg, true)));
}

Tovik::Message objectWith(double value) {
  Tovik::Message msg;
  msg.SetObject();
  msg.AddMember("before", 1, msg.GetAllocator());
  msg.AddMember("value", value, msg.GetAllocator());
  msg.AddMember("after", 2, msg.GetAllocator());
  return msg;
}

}  // namespace

// --- Message ---

TEST(Message, IsADocumentAndNothingMore) {
  EXPECT_TRUE((std::is_base_of_v<rapidjson::Document, Tovik::Message>));
  EXPECT_EQ(sizeof(Tovik::Message), sizeof(rapidjson::Document));
  EXPECT_FALSE(std::is_copy_constructible_v<Tovik::Message>);
  EXPECT_TRUE(std::is_move_constructible_v<Tovik::Message>);
}

TEST(Message, StartsAsNull) {
  EXPECT_TRUE(Tovik::Message().IsNull());
  EXPECT_EQ(compact(Tovik::Message()), "null");
}

TEST(Message, HasNoWhitespaceInItsCompactText) {
  EXPECT_EQ(compact(parsed(R"( { "a" : [ 1 , 2 ] , "b" : { "c" : null } } )")),
            R"({"a":[1,2],"b":{"c":null}})");
}

TEST(Message, IndentsByFourSpacesALevelAndKeepsEmptyContainersOnOneLine) {
  EXPECT_EQ(indented(parsed(R"({"a":[1,{}],"b":{"c":"d","e":[]}})")),
            "{\n"
            "    \"a\": [\n"
            "        1,\n"
            "        {}\n"
            "    ],\n"
            "    \"b\": {\n"
            "        \"c\": \"d\",\n"
            "        \"e\": []\n"
            "    }\n"
            "}");
}

TEST(Message, WritesRootsThatAreNoObjectsAndNumbersInFull) {
  for (const char* text : {"null", "true", "-7", "1.5", R"("text")", "[1,[2]]",
                           "[4294967295,-2147483648,18446744073709551615]", "[1.0,0.1,5e-324]"}) {
    EXPECT_EQ(compact(parsed(text)), text);
  }
}

TEST(Message, EscapesWhatJsonRequires) {
  Tovik::Message msg;
  msg.SetString("\" \\ \n \x01 \0.", 10);
  EXPECT_EQ(compact(msg), R"("\" \\ \n \u0001 \u0000.")");
}

TEST(Message, PassesBytesThatAreNoUtf8Unchanged) {
  EXPECT_EQ(compact(parsed("\"\xff\xfe \xc3\xa4\"")), "\"\xff\xfe \xc3\xa4\"");
}

TEST(Message, WritesADocumentOfAnyDepthTheSameWay) {
  for (const int depth : {99, 100, 101, 200000}) {
    std::string text = R"({"a":[],"b":)";
    for (int level = 0; level < depth; ++level) {
      text += level % 2 == 0 ? R"([1,{},)" : R"({"k\u0000":"v","in":)";
    }
    text += "1.5";
    for (int level = depth - 1; level >= 0; --level) {
      text += level % 2 == 0 ? R"(,null])" : R"(,"out":true})";
    }
    text += R"(,"c":2})";
    Tovik::Message msg;
    msg.Parse<rapidjson::kParseIterativeFlag>(text.c_str());
    EXPECT_EQ(compact(msg), text) << depth;
  }
}

TEST(Message, EndsItsTextAtAValueThatJsonCannotExpressAtAnyDepth) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (const auto& [depth, inMember] : {std::pair(1, false), {500, false}, {500, true}}) {
    Tovik::Message msg = objectWith(nan);
    if (!inMember) {
      msg.SetDouble(nan);
    }
    for (int level = 0; level < depth; ++level) {
      Tovik::Message::ValueType outer(rapidjson::kArrayType);
      outer.PushBack(7, msg.GetAllocator());
      outer.PushBack(static_cast<Tovik::Message::ValueType&>(msg), msg.GetAllocator());
      static_cast<Tovik::Message::ValueType&>(msg) = outer;
    }
    std::string expected;
    for (int level = 0; level < depth; ++level) {
      expected += "[7,";
    }
    expected += inMember ? R"({"before":1,"value":)" : "";
    EXPECT_EQ(compact(msg), expected);
  }
}

TEST(Message, IndentsADocumentOfAnyDepth) {
  std::string text;
  std::string expected;
  for (std::size_t level = 0; level < 300; ++level) {
    text += '[';
    expected += "[\n" + std::string(4 * (level + 1), ' ');
  }
  text += "1";
  expected += "1";
  for (std::size_t level = 300; level-- > 0;) {
    text += ']';
    expected += "\n" + std::string(4 * level, ' ') + "]";
  }
  EXPECT_EQ(indented(parsed(text)), expected);
}

TEST(Message, GrowsBeyondTheWritersInitialSizes) {
  const std::string deep = std::string(100, '[') + std::string(100, ']');
  EXPECT_EQ(compact(parsed(deep)), deep);
  const std::string large = "\"" + std::string(100000, 'x') + "\"";
  EXPECT_EQ(compact(parsed(large)), large);
  EXPECT_EQ(indented(parsed(large)), large);
}

TEST(Message, EndsItsTextAtAValueThatJsonCannotExpress) {
  const double infinity = std::numeric_limits<double>::infinity();
  for (const double value : {std::numeric_limits<double>::quiet_NaN(), infinity, -infinity}) {
    EXPECT_EQ(compact(objectWith(value)), R"({"before":1,"value":)");
    EXPECT_EQ(indented(objectWith(value)), "{\n    \"before\": 1,\n    \"value\": ");
  }
}

TEST(Message, IsUnchangedByBeingWritten) {
  const Tovik::Message msg = parsed(R"({"a":1})");
  EXPECT_EQ(compact(msg), compact(msg));
  EXPECT_TRUE(msg.HasMember("a"));
}

// --- SocketException ---

TEST(SocketException, CarriesTheSystemsTextAndStandsForACauseOutsideTheProgram) {
  EXPECT_TRUE(Tovik::SocketException(EPIPE).external());
  for (const int error : {ECONNREFUSED, EPIPE, EBADF, EMFILE, 0, 99999}) {
    const std::string text = std::strerror(error);
    EXPECT_EQ(Tovik::SocketException(error).what(), text);
  }
  EXPECT_STREQ(Tovik::SocketException(ECONNREFUSED).what(), "Connection refused");
}

TEST(SocketException, KeepsItsTextWhenTheSystemsBufferIsReused) {
  const std::string text = std::strerror(99999);
  const Tovik::SocketException thrown(99999);
  std::strerror(88888);
  EXPECT_EQ(thrown.what(), text);
}

TEST(SocketException, IsNamedThroughItsBaseToo) {
  try {
    throw Tovik::SocketException(EPIPE);
  } catch (const Kelvo::Exception& thrown) {
    EXPECT_STREQ(thrown.name(), "Tovik::SocketException");
    EXPECT_EQ(typeid(thrown), typeid(Tovik::SocketException));
  }
}

TEST(SocketException, KeepsItsTextWhenCopied) {
  auto original = std::make_unique<Tovik::SocketException>(ECONNREFUSED);
  const Tovik::SocketException copy(*original);
  original.reset();
  EXPECT_STREQ(copy.what(), "Connection refused");
}
