#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/Faults.h"

// Stands between the libraries and the C library. Counts the system calls that the two libraries
// make (told by who calls: a scenario's own calls do not count), and the allocations of the whole
// thread; makes one chosen call fail.

namespace Injection {

/// A kind of call, and the errors that the manual gives for it, all that Linux may return.
struct Kind {
  std::string name;  // fcntl by its command, epoll_ctl by its operation
  Faults::Call call;
  std::vector<int> errors;
  std::size_t operation = 0;  // of epoll_ctl
  int count = 0;              // of the last run
};

/// All of them; "malloc" is an allocation.
std::vector<Kind>& kinds();

/// The fault of one run: the `occurrence`th call (from 1) of that kind fails with `error`.
struct Fault {
  std::string call;
  int occurrence = 0;
  int error = 0;
};

/// Starts to count on this thread, with that fault to come.
void start(const Fault& fault);

/// Whether this thread counts, until it is set to false.
inline thread_local bool counting = false;

/// Whether the fault of the last run has happened.
extern bool happened;

/// Whether the allocation that failed was one of RapidJSON's, which does not look at what it gets.
extern bool failedInRapidJson;

/// Blocks of memory that are allocated now, in the whole process.
extern std::atomic<long> liveBlocks;

/// While it lives, nothing counts and nothing fails on this thread, which is at a run: for what a
/// scenario does itself.
class Suspended {
 public:
  Suspended() { counting = false; }
  Suspended(const Suspended&) = delete;
  Suspended& operator=(const Suspended&) = delete;
  ~Suspended() { counting = true; }
};

}  // namespace Injection
