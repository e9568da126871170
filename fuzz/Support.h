#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/Support.h"

// What the fuzz targets share. Each runs one input against the real library on real sockets, and
// compares every step with what a small model of it says.

namespace fuzz {

/// Ends the run: libFuzzer keeps the input.
[[noreturn]] void finding(const std::string& what);

inline void require(bool condition, const std::string& what) {
  if (!condition) {
    finding(what);
  }
}

void requireEqual(const std::string& actual, const std::string& expected, const char* what);

/// An assertion of the library that failed. In an application this is the end of the process; here
/// the harness defines __assert_fail, which throws one of these instead. That is sound: this
/// build's <assert.h> promises no compiler that the function does not throw, so every frame on the
/// way has its clean-up code; none of them is noexcept; and the library and its event loop promise
/// to come through an exception of the application with nothing leaked or half done, which this one
/// is to them. The leak checker and the count of descriptors hold them to it.
struct Stop {
  std::string condition;
};

/// Runs `step`; the condition of the assertion that stopped it, or "".
std::string stoppedBy(const std::function<void()>& step);

/// The fuzzer's bytes as a stream of small decisions; zeros when they have run out.
class Decisions {
 public:
  explicit Decisions(std::string_view input) : left_(input) {}

  bool any() const { return !left_.empty(); }
  unsigned byte() {
    if (left_.empty()) {
      return 0;
    }
    const auto byte = static_cast<unsigned char>(left_.front());
    left_.remove_prefix(1);
    return byte;
  }
  /// Less than `bound`.
  unsigned below(unsigned bound) { return byte() % bound; }

 private:
  std::string_view left_;
};

/// Takes the mark that an input may begin with, a byte 1: whether there was one.
bool takeMark(std::string_view& input);

// Records. The bytes 0x1D and 0x1E, which JSON has no use for, cut an input into records; 0x1D also
// ends a batch, the records that are in the socket together before anything reads.

using Batch = std::deque<std::string>;
std::vector<Batch> batchesOf(std::string_view input);

/// What one `asyncRead` makes of the records that wait, which it takes: each cut to 4095 bytes and
/// at its first NUL, and joined with the next after a read of just that length.
std::string takeText(Batch& waiting);

/// What one blocking read makes of a record.
std::string cutText(const std::string& record);

// Sockets.

/// Sends a record, without waiting. The errno, or 0.
int sendRecord(int fd, const std::string& record);

/// Sends a batch, for which there is room.
void sendBatch(int fd, const Batch& batch);

/// A server of raw sockets, for clients to connect to: the one of the process.
struct Listener {
  Fd accept() const;

  const std::string name = uniqueName();
  const Fd fd = rawListen(name);
};
const Listener& listener();

/// Runs one input in a world of its own, which leaves as many descriptors open as it found.
template <class World>
int converse(const std::uint8_t* data, std::size_t size) {
  listener();
  Kelvo::Platform::EventLoop::current();  // both have descriptors that stay
  const int lowestFree = nextDescriptor();
  World().run({reinterpret_cast<const char*>(data), size});
  require(nextDescriptor() == lowestFree, "a descriptor was left open");
  return 0;
}

/// Collects what the library logs, as "level function: text" without the function's class.
class Log {
 public:
  Log();

  /// Holds that these lines, and no others, have been logged since the last time.
  void expect(const std::vector<std::string>& lines);

 private:
  std::vector<std::string> lines_;
  LogSink sink_;
};

}  // namespace fuzz
