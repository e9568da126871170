// The number is kept in a page that the kernel gives to every child empty (MADV_WIPEONFORK). Who
// finds it empty takes the next number. The counter of those lies in ordinary memory, which a child
// does inherit, so its number is a higher one. Where the kernel refuses such a page, the process id
// has to do.

#include "Kelvo/Platform/detail/ProcessEpoch.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <new>

namespace Kelvo::Platform {

std::atomic<std::atomic<std::uint64_t>*> processPage{nullptr};

namespace {

using Cell = std::atomic<std::uint64_t>;
static_assert(Cell::is_always_lock_free);

Cell lastEpoch{0};
Cell refused{0};  // stands for a page that cannot be had

Cell* makePage() noexcept {
  constexpr std::size_t kSize = sizeof(Cell);  // the kernel rounds up
  void* const memory =
      ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    return &refused;
  }
  if (::madvise(memory, static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)), MADV_WIPEONFORK) != 0) {
    ::munmap(memory, kSize);
    return &refused;
  }
  return new (memory) Cell(0);
}

Cell* thePage() noexcept {
  Cell* known = processPage.load(std::memory_order_acquire);
  if (known == nullptr) {
    Cell* const made = makePage();
    if (processPage.compare_exchange_strong(known, made, std::memory_order_acq_rel)) {
      return made;
    }
    if (made != &refused) {
      ::munmap(made, sizeof(Cell));
    }
  }
  return known;
}

}  // namespace

std::uint64_t takeProcessEpoch() noexcept {
  Cell* const cell = thePage();
  if (cell == &refused) {
    return static_cast<std::uint64_t>(::getpid());
  }
  std::uint64_t epoch = cell->load(std::memory_order_relaxed);
  if (epoch == 0) {
    const std::uint64_t next = lastEpoch.fetch_add(1, std::memory_order_relaxed) + 1;
    if (cell->compare_exchange_strong(epoch, next, std::memory_order_relaxed)) {
      epoch = next;
    }
  }
  return epoch;
}

}  // namespace Kelvo::Platform
