// Preloaded into a contestant to count its heap allocations. The count stands in the file that
// BENCH_ALLOCATIONS names, 64 bits, for the driver to read while the program runs.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

// NOLINTBEGIN(readability-identifier-naming): the C library's own names
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* old, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}
// NOLINTEND(readability-identifier-naming)

namespace {

using Count = std::atomic<std::uint64_t>;

Count early;  // until the file is there
Count* count = &early;

[[gnu::constructor]] void shareCount() {
  const char* path = std::getenv("BENCH_ALLOCATIONS");
  const int fd = path == nullptr ? -1 : ::open(path, O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    return;
  }
  void* page = ::mmap(nullptr, sizeof *count, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (page != MAP_FAILED) {
    count = static_cast<Count*>(page);
  }
  ::close(fd);
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) void* malloc(std::size_t size) {
  count->fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(size);
}

__attribute__((visibility("default"))) void* calloc(std::size_t nmemb, std::size_t size) {
  count->fetch_add(1, std::memory_order_relaxed);
  return __libc_calloc(nmemb, size);
}

__attribute__((visibility("default"))) void* realloc(void* ptr, std::size_t size) {
  count->fetch_add(1, std::memory_order_relaxed);
  return __libc_realloc(ptr, size);
}

__attribute__((visibility("default"))) void* aligned_alloc(std::size_t alignment,
                                                           std::size_t size) {
  count->fetch_add(1, std::memory_order_relaxed);
  return __libc_memalign(alignment, size);
}
}
