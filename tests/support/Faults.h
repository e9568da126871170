#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

// The test program stands between the libraries and the C library: it defines the system call
// functions that they use, so that every call can be seen, and made to fail, on the real
// libraries. See Faults.cpp.

namespace Faults {

enum class Call {
  kSocket,
  kBind,
  kListen,
  kAccept,
  kConnect,
  kGetsockopt,
  kGetFl,
  kSetFl,
  kRead,
  kWrite,
  kClose,
  kStrerror,
  kEpollCreate,
  kEpollCtl,
  kEpollWait,
  kEventfd,
  kTimerfdCreate,
  kTimerfdSettime,
  kPoll,
  kNote,  // no call, but a line of a test's own among them
};

/// While it lives, calls of that kind made by this thread fail with `error`: `times` of them (all,
/// if negative), after `skip` that go through. A failing close closes the descriptor all the same,
/// as Linux does.
class Fail {
 public:
  Fail(Call call, int error, int times = -1, int skip = 0);
  Fail(const Fail&) = delete;
  Fail& operator=(const Fail&) = delete;
  ~Fail();

  /// How many calls have failed so far.
  int hits() const { return hits_; }

 private:
  friend struct Interposer;
  const Call call_;
  const int error_;
  int times_;
  int skip_;
  int hits_ = 0;
};

/// One call, as it went.
struct Seen {
  Call call;
  int fd = -1;           // its first argument, where that is a descriptor
  std::size_t size = 0;  // bytes asked for; the address length; the backlog
  long result = 0;
  std::string bytes;  // what was written; the address's bytes
};

/// Decides instead of all `Fail`: it is asked before each call of any thread, with the call's size
/// (see Seen) and its caller, for the error that the call is to fail with; 0 lets it go through.
using Hook = int (*)(Call call, std::size_t size, const void* caller);
void setHook(Hook hook);

/// Whether this thread is at work for a Trace, and not for what is tested.
bool collecting();

/// Collects the calls that this thread makes while it lives.
class Trace {
 public:
  Trace();
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;
  ~Trace();

  const std::vector<Seen>& calls() const { return calls_; }
  std::vector<Seen> of(Call call) const;
  int count(Call call) const { return static_cast<int>(of(call).size()); }
  void clear() { calls_.clear(); }
  /// Puts a line among the calls.
  void note(const std::string& line);

 private:
  friend struct Interposer;
  std::vector<Seen> calls_;
};

}  // namespace Faults
