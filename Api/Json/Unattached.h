#pragma once

// Private. Tells servers when there is nothing to free.

#include <atomic>

namespace Tovik {

/// How many of this process's senders have no descriptor: dead connections that nobody has freed,
/// asynchronous clients that are not connected, senders under construction. While it is zero, a
/// server has no dead connection, and need not walk through its live ones to know it. Any thread's
/// senders count; each thread sees its own changes in order, and those of others do not matter to
/// it.
extern std::atomic<int> unattachedSenders;

}  // namespace Tovik
