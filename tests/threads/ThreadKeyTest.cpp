#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>

#include "Kelvo/Exception.h"
#include "Kelvo/Platform/EventLoop.h"

// A loop is found through a thread-specific key. Without a key, or without memory for its value,
// there is no loop, and the next attempt starts from nothing. Each test needs a process that has
// made no loop yet, so each runs in a child.

namespace {

bool keysAreExhausted = false;
bool memoryIsExhausted = false;

using Kelvo::Platform::EventLoop;

/// Whether `attempt` is true in a child process.
bool inChild(const std::function<bool()>& attempt) {
  const pid_t child = fork();
  if (child == 0) {
    std::exit(attempt() ? 0 : 1);
  }
  int status = -1;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

int lowestFreeDescriptor() {
  const int lowest = dup(STDIN_FILENO);
  ::close(lowest);
  return lowest;
}

}  // namespace

// Found before the C library's.

extern "C" int pthread_key_create(pthread_key_t* key, void (*atThreadEnd)(void*)) noexcept {
  static const auto real =
      reinterpret_cast<decltype(&pthread_key_create)>(dlsym(RTLD_NEXT, "pthread_key_create"));
  return keysAreExhausted ? EAGAIN : real(key, atThreadEnd);
}

extern "C" int pthread_setspecific(pthread_key_t key, const void* value) noexcept {
  static const auto real =
      reinterpret_cast<decltype(&pthread_setspecific)>(dlsym(RTLD_NEXT, "pthread_setspecific"));
  return memoryIsExhausted ? ENOMEM : real(key, value);
}

TEST(LoopWithoutAThreadKey, IsAnExternalExceptionAndWorksOnceThereIsOne) {
  EXPECT_TRUE(inChild([] {
    keysAreExhausted = true;
    try {
      EventLoop::current();
      return false;
    } catch (const Kelvo::Exception& exception) {
      keysAreExhausted = false;
      return exception.what() ==
                 std::string("EventLoop: the process has no thread-specific key left") &&
             exception.external() && !EventLoop::current().dispatch();
    }
  }));
}

TEST(LoopWithoutMemoryForItsThread, IsBadAllocAndKeepsNoDescriptor) {
  EXPECT_TRUE(inChild([] {
    memoryIsExhausted = true;
    const int before = lowestFreeDescriptor();
    try {
      EventLoop::current();
      return false;
    } catch (const std::bad_alloc&) {
      memoryIsExhausted = false;
      return lowestFreeDescriptor() == before && !EventLoop::current().dispatch();
    }
  }));
}
