#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

// Stands between the libraries and the C library. Counts the system calls that the two libraries
// make (told by who calls: a scenario's own calls do not count), and the allocations of the whole
// thread; makes one chosen call fail.

namespace Injection {

/// A kind of call, by its name; fcntl by its command, epoll_ctl by its operation.
using Call = std::string;

/// The fault of one run: the `occurrence`th call (from 1) of that kind fails with `error`.
struct Fault {
  Call call;
  int occurrence = 0;
  int error = 0;
};

/// Starts to count on this thread, with that fault to come. "malloc" fails an allocation.
void start(const Fault& fault);

/// Stops counting on this thread.
void stop();

/// The number of calls of each kind in the last run.
std::map<Call, int> calls();

/// Whether the fault of the last run has happened.
bool happened();

/// Whether the allocation that failed was one of RapidJSON's, which does not look at what it gets.
/// Kept in memory that forked children share.
bool failedInRapidJson();

/// While it lives, nothing counts and nothing fails on this thread: for what a scenario does
/// itself.
class Suspended {
 public:
  Suspended();
  Suspended(const Suspended&) = delete;
  Suspended& operator=(const Suspended&) = delete;
  ~Suspended();

 private:
  const bool before_;
};

/// Blocks of memory that are allocated now, in the whole process.
long liveBlocks();

/// The errors that the manual gives for that call, all that Linux may return.
const std::vector<int>& errorsOf(const Call& call);

}  // namespace Injection
