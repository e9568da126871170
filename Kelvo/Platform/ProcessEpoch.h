#pragma once

#include <cstdint>

namespace Kelvo::Platform {

/// A number of this process that none of its ancestors had and no child inherits, however the child
/// was forked: with fork, _Fork, or a raw clone, which run no handlers. Costs no system call, and
/// takes no memory of the heap. From any thread and from signal handlers.
std::uint64_t processEpoch() noexcept;

}  // namespace Kelvo::Platform
