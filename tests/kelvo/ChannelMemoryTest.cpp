// A library's first log statement, with no memory left.

#include <gtest/gtest.h>

#include <new>
#include <string>

#include "Kelvo/Platform/Debug.h"
#include "tests/support/Memory.h"

using Faults::NoMemory;
using Kelvo::Platform::_getRawDebugHandler;
using Kelvo::Platform::RawDebugHandler;

namespace {

RawDebugHandler* withoutMemory(const Kelvo::String& channel) {
  const NoMemory noMemory;
  try {
    return _getRawDebugHandler(channel, true);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

TEST(FirstChannels, TakeNoMemory) {
  for (int i = 0; i < 8; ++i) {
    const Kelvo::String name(std::string(31, 'x') + std::to_string(i));
    RawDebugHandler* const handler = withoutMemory(name);
    ASSERT_NE(handler, nullptr) << i;
    EXPECT_TRUE(handler->enabled(0));
    EXPECT_FALSE(handler->enabled(1));
    EXPECT_EQ(_getRawDebugHandler(name, false), handler);
    EXPECT_EQ(withoutMemory(name), handler);
  }
  const Kelvo::String ninth("ninth");
  EXPECT_EQ(withoutMemory(ninth), nullptr);
  RawDebugHandler* const handler = _getRawDebugHandler(ninth, false);
  EXPECT_NE(handler, nullptr);
  EXPECT_EQ(withoutMemory(ninth), handler);
  const Kelvo::String another("another");
  EXPECT_NE(_getRawDebugHandler(another, false), handler);
}

TEST(FirstChannels, TakeMemoryForALongName) {
  const Kelvo::String name(std::string(33, 'y'));
  EXPECT_EQ(withoutMemory(name), nullptr);
  RawDebugHandler* const handler = _getRawDebugHandler(name, true);
  EXPECT_NE(handler, nullptr);
  EXPECT_EQ(withoutMemory(name), handler);
}

TEST(FirstChannels, DropARecordForWhichThereIsNoMemory) {
  RawDebugHandler* const handler = _getRawDebugHandler("dropping", true);
  Kelvo::Platform::DebugStream stream;
  stream << std::string(1000, 'x');
  int records = 0;
  Kelvo::Platform::setDebugSink("dropping", [&](const auto&) { ++records; });
  {
    const NoMemory noMemory;
    handler->output(stream, 0, "file", "function", 1);
  }
  EXPECT_EQ(records, 0);
  handler->output(stream, 0, "file", "function", 1);
  EXPECT_EQ(records, 1);
  Kelvo::Platform::setDebugSink("dropping", nullptr);
}

}  // namespace
