// The allocation functions of a test program, which its libraries find before the standard ones.

#include "tests/support/Memory.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "tests/support/Faults.h"

namespace Faults {

namespace {

std::atomic<std::size_t> bytes{0};

thread_local int skipping = 0;
thread_local int failing = 0;
thread_local int failed = 0;

bool fails() {
  if (failing == 0 || collecting()) {
    return false;
  }
  if (skipping > 0) {
    --skipping;
    return false;
  }
  failing -= failing > 0 ? 1 : 0;
  ++failed;
  return true;
}

void* allocate(std::size_t size) noexcept {
  void* const memory = fails() ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (memory != nullptr) {
    bytes += malloc_usable_size(memory);
  }
  return memory;
}

}  // namespace

std::size_t allocatedBytes() {
  return bytes;
}

int failedAllocations() {
  return failed;
}

NoMemory::NoMemory(int skip, int times) {
  skipping = skip;
  failing = times;
}

NoMemory::~NoMemory() {
  failing = 0;
}

}  // namespace Faults

void* operator new(std::size_t size) {
  if (void* const memory = Faults::allocate(size)) {
    return memory;
  }
  throw std::bad_alloc();
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return Faults::allocate(size);
}

/// Wipes it, so that nobody lives on what is left there. Not to be inlined, or the compiler takes
/// it for a mismatch of malloc's kind with its own.
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  if (memory != nullptr) {
    const std::size_t size = malloc_usable_size(memory);
    Faults::bytes -= size;
    explicit_bzero(memory, size);
  }
  std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
  operator delete(memory);
}

[[gnu::noinline]] void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
  operator delete(memory);
}
