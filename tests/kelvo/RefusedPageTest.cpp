// A kernel, or a sandbox, that refuses the page by which a forked child is recognised.

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstddef>

#include "tests/kelvo/Handlers.h"

extern "C" int madvise(void* /*memory*/, std::size_t /*size*/, int /*advice*/) noexcept {
  errno = EINVAL;
  return -1;
}

namespace {

bool serves() {
  int posted = 0;
  loop().post([&] { ++posted; });
  return turnUntil([&] { return posted == 1; });
}

TEST(RefusedPage, LeavesAForkedChildRecognised) {
  EXPECT_TRUE(serves());
  EXPECT_TRUE(inChild([] {
    const bool refused = thrownBy([] { loop().dispatch(); }) != "<nothing thrown>";
    Kelvo::Platform::EventLoop::renewAfterFork();
    return refused && serves();
  }));
  EXPECT_TRUE(serves());
}

}  // namespace
