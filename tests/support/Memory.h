#pragma once

#include <cstddef>

namespace Faults {

/// What this program holds from `operator new`, its libraries included, in bytes.
std::size_t allocatedBytes();

/// While it lives, `operator new` fails on this thread: `times` times (always, if negative), after
/// `skip` allocations that succeed.
class NoMemory {
 public:
  explicit NoMemory(int skip = 0, int times = -1);
  NoMemory(const NoMemory&) = delete;
  NoMemory& operator=(const NoMemory&) = delete;
  ~NoMemory();
};

/// How many allocations have failed on this thread so far.
int failedAllocations();

}  // namespace Faults
