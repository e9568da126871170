#pragma once

#include <atomic>
#include <cstdint>

namespace Kelvo::Platform {

/// A number of this process that none of its ancestors had and no child inherits, however the child
/// was forked: with fork, _Fork, or a raw clone, which run no handlers. Costs no system call, and
/// takes no memory of the heap. From any thread and from signal handlers.
inline std::uint64_t processEpoch() noexcept;

/// What `processEpoch` does for the first caller of a process.
std::uint64_t takeProcessEpoch() noexcept;

/// The process's page, once it has one; it holds 0 in a child that has not asked yet.
extern std::atomic<std::atomic<std::uint64_t>*> processPage;

inline std::uint64_t processEpoch() noexcept {
  if (const auto* page = processPage.load(std::memory_order_acquire)) {
    if (const auto epoch = page->load(std::memory_order_relaxed); epoch != 0) {
      return epoch;
    }
  }
  return takeProcessEpoch();
}

}  // namespace Kelvo::Platform
