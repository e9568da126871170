// A kernel, or a sandbox, that refuses the page by which a forked child is recognised.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

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
  const pid_t child = fork();
  if (child == 0) {
    const bool refused = thrownBy([] { loop().dispatch(); }) != "<nothing thrown>";
    Kelvo::Platform::EventLoop::renewAfterFork();
    _exit(refused && serves() ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(serves());
}

}  // namespace
