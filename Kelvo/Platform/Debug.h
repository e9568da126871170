#pragma once

#include <atomic>
#include <functional>
#include <sstream>
#include <string>

#include "../Export.h"
#include "../String.h"

/// @file
/// Debug channels.
///
/// A channel has a name, a mask of enabled levels and one sink. Libraries ask for a channel's
/// handler once, keep the pointer, and test `enabled(level)` before they format anything, so that a
/// disabled statement costs one load and one branch. Levels start at none. Enabled records go to
/// standard error, one line each, until the application sets a sink of its own. Texts may stem from
/// peers, so control characters (C0, DEL, C1) and bytes that are not UTF-8 are shown there as two
/// hexadecimal digits, such as `\x1b`; a sink gets the text as it is.
///
/// A forked child may log and configure at once, whatever other threads of its parent were doing.

namespace Kelvo::Platform {

/// The stream in which one record's text is put together. Always in the classic locale.
class KELVO_API DebugStream : public std::ostringstream {
 public:
  DebugStream();
  ~DebugStream() override;
};

/// One finished record, as a sink sees it.
struct DebugRecord {
  /// The name of the channel.
  std::string channel;
  /// From 0, errors, upwards.
  int level = 0;
  /// The emitting source, as its library names it.
  std::string file;
  /// The emitting function's bare name.
  std::string function;
  /// The line of that source.
  int line = 0;
  /// What happened, without a line's end.
  std::string text;
};

/// A channel, seen from the code that writes to it. Safe on any thread; lives as long as the
/// process.
class KELVO_API RawDebugHandler {
 public:
  RawDebugHandler() = default;
  RawDebugHandler(const RawDebugHandler&) = delete;
  RawDebugHandler& operator=(const RawDebugHandler&) = delete;
  virtual ~RawDebugHandler();

  /// True when records of this level (0 to 31) are wanted now. Ask again for every record.
  bool enabled(int level) const noexcept {
    return ((mask_.load(std::memory_order_relaxed) >> level) & 1U) != 0;
  }

  /// Bit n enables level n. Takes effect at the next record, on every thread.
  void setMask(unsigned mask) noexcept { mask_.store(mask, std::memory_order_relaxed); }

  /// Hands one finished record on. Never throws and leaves `errno` as it was: a diagnostic must
  /// not change what the program does, so a record that cannot be written is dropped. A thread that
  /// is cancelled meanwhile ends afterwards.
  virtual void output(const DebugStream& stream, int level, const char* file, const char* function,
                      int line) noexcept = 0;

 private:
  std::atomic<unsigned> mask_{0};
};

/// The handler of the channel of that name, made on first use. `errorsFromStart` enables level 0 if
/// this call makes the channel; it does nothing to one that exists. Never null. The first eight
/// channels of a process take no memory if their names have at most 32 bytes; later ones may throw
/// `std::bad_alloc`.
KELVO_API RawDebugHandler* _getRawDebugHandler(const String& channel, bool errorsFromStart);

/// Enables level n of the channel for every bit n of `mask`, and no other. From any thread.
KELVO_API void setDebugLevels(const String& channel, unsigned mask);

/// Sends the channel's records to `sink` instead of standard error; an empty function restores
/// standard error. From any thread. A channel calls its sink for one record at a time, on the
/// thread that logs. What a sink itself logs on its own channel is dropped, and so is what it
/// throws. A sink must not end its thread.
KELVO_API void setDebugSink(const String& channel, std::function<void(const DebugRecord&)> sink);

}  // namespace Kelvo::Platform
