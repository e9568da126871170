#include "Kelvo/String.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include "Kelvo/Exception.h"

using Kelvo::String;
using namespace std::string_view_literals;

namespace {

std::string withNul() {
  return std::string("a\0b", 3);
}

TEST(String, IsEmptyWhenMadeFromNothing) {
  const String string;

  EXPECT_TRUE(string.empty());
  EXPECT_EQ(string.size(), 0U);
  EXPECT_STREQ(string.data(), "");
}

TEST(String, CopiesATextUpToItsNul) {
  char text[] = "abc\0def";
  const String string(text);
  text[0] = 'x';

  EXPECT_EQ(string.size(), 3U);
  EXPECT_STREQ(string.data(), "abc");
  EXPECT_FALSE(string.empty());
}

TEST(String, KeepsNulBytesOfAString) {
  const String string(withNul());

  EXPECT_EQ(string.size(), 3U);
  EXPECT_EQ(std::string_view(string), "a\0b"sv);
}

TEST(String, EndsItsDataInANulThatIsNotCounted) {
  String string(withNul());
  string.append("cd");

  EXPECT_EQ(string.size(), 5U);
  EXPECT_EQ(string.data()[5], '\0');
}

TEST(String, AppendsBytesNulIncluded) {
  String string("x");
  string.append("y\0z"sv);
  string.append("");
  string.append(string);

  EXPECT_EQ(std::string_view(string), "xy\0zxy\0z"sv);
}

TEST(String, ComparesAllItsBytes) {
  EXPECT_TRUE(String("ab") == String(std::string("ab")));
  EXPECT_FALSE(String("ab") != String("ab"));
  EXPECT_FALSE(String("ab") == String("ac"));
  EXPECT_FALSE(String(withNul()) == String("a"));
  EXPECT_TRUE(String(withNul()) != String(std::string("a\0c", 3)));
  EXPECT_TRUE(String("ab") == "ab");
}

TEST(String, InsertsAllItsBytesIntoAStream) {
  std::ostringstream out;
  out << String("<") << String(withNul()) << String(">");
  out.width(5);
  out << String("abc");

  EXPECT_EQ(out.str(), "<a\0b>  abc"sv);
}

TEST(String, CopiesAreIndependentOfEachOther) {
  String first("abc");
  String second = first;
  second.append("d");
  first.clear();

  EXPECT_TRUE(first.empty());
  EXPECT_STREQ(first.data(), "");
  EXPECT_STREQ(second.data(), "abcd");
}

class CustomException : public Kelvo::Exception {
 public:
  CustomException() : Exception("custom", true) {}
  const char* name() const noexcept override { return "CustomException"; }
};

TEST(Exception, HoldsItsTextAndTellsWhoseDoingItIs) {
  const Kelvo::Exception theirs("the peer went away", true);
  const Kelvo::Exception ours(String("misuse"), false);

  EXPECT_STREQ(theirs.what(), "the peer went away");
  EXPECT_TRUE(theirs.external());
  EXPECT_STREQ(ours.what(), "misuse");
  EXPECT_FALSE(ours.external());
}

TEST(Exception, NamesItsClassQualified) {
  const Kelvo::Exception plain("text", false);
  const CustomException custom;
  const Kelvo::Exception& base = custom;

  EXPECT_STREQ(plain.name(), "Kelvo::Exception");
  EXPECT_STREQ(base.name(), "CustomException");
}

TEST(Exception, IsCaughtAsAStandardException) {
  try {
    throw CustomException();
  } catch (const std::exception& exception) {
    EXPECT_STREQ(exception.what(), "custom");
  }
}

TEST(Exception, KeepsItsTextWhenCopied) {
  auto copy = [] {
    const Kelvo::Exception original("a text that is too long to be stored in place", true);
    return Kelvo::Exception(original);
  }();

  EXPECT_STREQ(copy.what(), "a text that is too long to be stored in place");
  EXPECT_TRUE(copy.external());
}

}  // namespace
