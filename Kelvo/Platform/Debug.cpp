#include "Kelvo/Platform/Debug.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace Kelvo::Platform {

namespace {

using Sink = std::function<void(const DebugRecord&)>;

/// UTC, worked out from the days since 1970. The C library's own functions would read TZ and the
/// time zone's file, even for UTC. Years are taken to begin in March, so that a leap day ends one.
std::string timestamp() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const long second = now.tv_sec % 86400;
  const long days = now.tv_sec / 86400 + 719468;  // since 1 March of the year 0
  const long era = days / 146097;                 // of 400 years
  const long dayOfEra = days % 146097;
  const long yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const long sinceMarch = (5 * dayOfYear + 2) / 153;  // months
  const long day = dayOfYear - (153 * sinceMarch + 2) / 5 + 1;
  const long month = sinceMarch < 10 ? sinceMarch + 3 : sinceMarch - 9;
  const long year = era * 400 + yearOfEra + (month <= 2 ? 1 : 0);
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%04ld-%02ld-%02ldT%02ld:%02ld:%02ld.%06ldZ", year, month,
                day, second / 3600, second / 60 % 60, second % 60, now.tv_nsec / 1000);
  return text.data();
}

/// One line and one write a record, so that lines of several threads do not mix. Line breaks inside
/// the text are kept from breaking the line.
void writeToStandardError(const DebugRecord& record) {
  std::string line = timestamp() + " " + record.channel + " " + std::to_string(record.level) + " " +
                     record.file + ":" + std::to_string(record.line) + " " + record.function + ": ";
  for (const char byte : record.text) {
    line += byte == '\n' ? ' ' : byte;
  }
  line += '\n';
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
}

class Channel : public RawDebugHandler {
 public:
  explicit Channel(std::string name) : name_(std::move(name)) {}

  void setSink(Sink sink) {
    auto shared = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
    const std::lock_guard lock(mutex_);
    sink_.swap(shared);
  }

  void output(const DebugStream& stream, int level, const char* file, const char* function,
              int line) noexcept override {
    const int callersErrno = errno;
    try {
      hand(DebugRecord{name_, level, file, function, line, stream.str()});
    } catch (...) {
      // Out of memory, or a sink that throws: the record is lost, the program goes on.
    }
    errno = callersErrno;
  }

 private:
  void hand(const DebugRecord& record) {
    const std::lock_guard lock(mutex_);
    if (inSink_) {
      return;
    }
    const auto sink = sink_;  // keeps a sink alive that replaces itself
    if (!sink) {
      return writeToStandardError(record);
    }
    const Flag inSink(inSink_);
    (*sink)(record);
  }

  /// Raises a flag for a scope, exceptions included.
  class Flag {
   public:
    explicit Flag(bool& flag) : flag_(flag) { flag_ = true; }
    Flag(const Flag&) = delete;
    Flag& operator=(const Flag&) = delete;
    ~Flag() { flag_ = false; }

   private:
    bool& flag_;
  };

  const std::string name_;
  std::recursive_mutex mutex_;  // recursive: a sink may log, or set another sink
  std::shared_ptr<const Sink> sink_;
  bool inSink_ = false;
};

Channel& channel(const String& name, bool errorsFromStart) {
  // Never released: handlers are kept by pointer, and static destructors may still log.
  static auto& mutex = *new std::mutex;
  static auto& channels = *new std::map<std::string, Channel, std::less<>>;
  const std::lock_guard lock(mutex);
  const auto [entry, made] = channels.try_emplace(std::string(name), std::string(name));
  if (made && errorsFromStart) {
    entry->second.setMask(1U);
  }
  return entry->second;
}

}  // namespace

DebugStream::DebugStream() = default;
DebugStream::~DebugStream() = default;
RawDebugHandler::~RawDebugHandler() = default;

RawDebugHandler* _getRawDebugHandler(const String& name, bool errorsFromStart) {
  return &channel(name, errorsFromStart);
}

void setDebugLevels(const String& name, unsigned mask) {
  channel(name, false).setMask(mask);
}

void setDebugSink(const String& name, std::function<void(const DebugRecord&)> sink) {
  channel(name, false).setSink(std::move(sink));
}

}  // namespace Kelvo::Platform
