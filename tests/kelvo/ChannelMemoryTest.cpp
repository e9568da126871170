// A library's first log statement, with no memory left.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "Kelvo/Platform/Debug.h"

using Kelvo::Platform::_getRawDebugHandler;
using Kelvo::Platform::RawDebugHandler;

namespace {

std::atomic<bool> exhausted{false};

}  // namespace

void* operator new(std::size_t size) {
  void* const memory = exhausted ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace {

RawDebugHandler* withoutMemory(const Kelvo::String& channel) {
  exhausted = true;
  RawDebugHandler* handler = nullptr;
  try {
    handler = _getRawDebugHandler(channel, true);
  } catch (const std::bad_alloc&) {
  }
  exhausted = false;
  return handler;
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

TEST(FirstChannels, DropARecordForWhichThereIsNoMemory) {
  RawDebugHandler* const handler = _getRawDebugHandler("dropping", true);
  Kelvo::Platform::DebugStream stream;
  stream << std::string(1000, 'x');
  int records = 0;
  Kelvo::Platform::setDebugSink("dropping", [&](const auto&) { ++records; });
  exhausted = true;
  handler->output(stream, 0, "file", "function", 1);
  exhausted = false;
  EXPECT_EQ(records, 0);
  handler->output(stream, 0, "file", "function", 1);
  EXPECT_EQ(records, 1);
  Kelvo::Platform::setDebugSink("dropping", nullptr);
}

}  // namespace
