#include "Kelvo/Platform/Debug.h"

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <locale>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

#include "Kelvo/Platform/detail/ProcessEpoch.h"

namespace Kelvo::Platform {

namespace {

using Sink = std::function<void(const DebugRecord&)>;

/// UTC, worked out from the days since 1970. The C library's own functions would read TZ and the
/// time zone's file, even for UTC. Years are taken to begin in March, so that a leap day ends one.
std::string timestamp() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const auto second = static_cast<long>(now.tv_sec % 86400);
  const auto days = static_cast<long>(now.tv_sec / 86400 + 719468);  // since 1 March of the year 0
  const long era = days / 146097;                                    // of 400 years
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

/// The length of the character that `text` begins with; 0 if that is a control character, or not
/// UTF-8.
std::size_t visibleCharacter(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  if (first < 0x80) {
    return first >= 0x20 && first != 0x7f ? 1 : 0;
  }
  const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || text.size() < length) {
    return 0;
  }
  std::uint32_t code = first & (0x7fU >> length);
  for (const char byte : text.substr(1, length - 1)) {
    if ((static_cast<unsigned char>(byte) & 0xc0U) != 0x80U) {
      return 0;
    }
    code = (code << 6) | (static_cast<unsigned char>(byte) & 0x3fU);
  }
  constexpr std::array<std::uint32_t, 3> kLowest{0xa0, 0x800, 0x10000};  // by length, without C1
  const bool surrogate = code >= 0xd800 && code <= 0xdfff;
  return code >= kLowest[length - 2] && code <= 0x10ffff && !surrogate ? length : 0;
}

/// A peer's text reaches the log, and the log a terminal: what could move a cursor or end a line
/// becomes visible.
void appendVisibly(std::string& line, std::string_view text) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  while (!text.empty()) {
    const std::size_t length = visibleCharacter(text);
    if (length == 0) {
      const auto byte = static_cast<unsigned char>(text.front());
      line.append("\\x").append(1, kDigits[byte >> 4]).append(1, kDigits[byte & 0xf]);
    } else {
      line.append(text.substr(0, length));
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
}

/// One line and one write a record, so that lines of several threads do not mix.
void writeToStandardError(const DebugRecord& record) {
  std::string line = timestamp() + " " + record.channel + " " + std::to_string(record.level) + " " +
                     record.file + ":" + std::to_string(record.line) + " " + record.function + ": ";
  appendVisibly(line, record.text);
  line += '\n';
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
}

class Channel : public RawDebugHandler {
 public:
  /// `name` lives as long as the channel.
  explicit Channel(std::string_view name) : name_(name) {}

  std::string_view name() const { return name_; }

  void setSink(Sink sink) {
    std::unique_ptr<const SharedSink> changed;
    if (sink) {
      changed = std::make_unique<const SharedSink>(std::make_shared<const Sink>(std::move(sink)));
    }
    const std::lock_guard lock(mutex());
    changed.reset(sink_.exchange(changed.release()));
  }

  void output(const DebugStream& stream, int level, const char* file, const char* function,
              int line) noexcept override {
    const int callersErrno = errno;
    int cancelState = 0;  // a thread that is cancelled in here would end the process
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    try {
      hand(DebugRecord{std::string(name_), level, file, function, line, stream.str()});
    } catch (...) {
      // Out of memory, or a sink that throws: the record is lost, the program goes on.
    }
    pthread_setcancelstate(cancelState, nullptr);
    errno = callersErrno;
  }

  Channel* next = nullptr;  // in the list of all

 private:
  using SharedSink = std::shared_ptr<const Sink>;

  /// A sink at work on this thread. A fork inside of it leaves that as it is.
  class InSink {
   public:
    explicit InSink(const Channel* channel) : channel_(channel), outer_(innermost_) {
      innermost_ = this;
    }
    InSink(const InSink&) = delete;
    InSink& operator=(const InSink&) = delete;
    ~InSink() { innermost_ = outer_; }

    static bool of(const Channel* channel) {
      const InSink* frame = innermost_;
      while (frame != nullptr && frame->channel_ != channel) {
        frame = frame->outer_;
      }
      return frame != nullptr;
    }

   private:
    const Channel* const channel_;
    const InSink* const outer_;
    static inline thread_local const InSink* innermost_ = nullptr;
  };

  /// One process's lock. A child may have been forked while another thread held its parent's.
  struct Lock {
    const std::uint64_t process = processEpoch();
    std::recursive_mutex mutex;  // recursive: a sink may log, or set another sink
  };

  void hand(const DebugRecord& record) {
    const std::lock_guard lock(mutex());
    if (InSink::of(this)) {
      return;
    }
    const SharedSink* const set = sink_.load();
    const SharedSink sink = set != nullptr ? *set : nullptr;  // lives on if it replaces itself
    if (!sink) {
      return writeToStandardError(record);
    }
    const InSink inSink(this);
    (*sink)(record);
  }

  std::recursive_mutex& mutex() {
    Lock* lock = lock_.load();
    while (lock->process != processEpoch()) {
      auto fresh = std::make_unique<Lock>();
      if (lock_.compare_exchange_strong(lock, fresh.get())) {
        lock = fresh.release();  // and the parent's is left as it is
      }
    }
    return lock->mutex;
  }

  const std::string_view name_;
  Lock firstLock_;
  std::atomic<Lock*> lock_{&firstLock_};
  std::atomic<const SharedSink*> sink_{nullptr};  // one word, which no fork finds half written
};

// All channels are in a list that only grows, so that finding one takes no lock, which a fork could
// leave locked. None is ever released: handlers are kept by pointer, and static destructors may
// still log.
std::atomic<Channel*> channels{nullptr};

/// Memory for the first few channels, so that a library's first log statement needs none.
struct Place {
  std::array<char, 32> name;
  alignas(Channel) std::array<unsigned char, sizeof(Channel)> channel;
};
std::array<Place, 8> places;
std::atomic<std::size_t> placesTaken{0};

Channel& makeChannel(std::string_view name) {
  if (name.size() <= places[0].name.size()) {
    const std::size_t taken = placesTaken.fetch_add(1);
    if (taken < places.size()) {
      Place& place = places[taken];
      name.copy(place.name.data(), name.size());
      return *new (place.channel.data()) Channel({place.name.data(), name.size()});
    }
  }
  auto owned = std::make_unique<std::string>(name);
  auto* const made = new Channel(*owned);
  static_cast<void>(owned.release());
  return *made;
}

Channel* findChannel(std::string_view name) {
  Channel* at = channels.load();
  while (at != nullptr && at->name() != name) {
    at = at->next;
  }
  return at;
}

Channel& channel(std::string_view name, bool errorsFromStart) {
  if (Channel* const known = findChannel(name)) {
    return *known;
  }
  Channel& made = makeChannel(name);
  made.setMask(errorsFromStart ? 1U : 0U);
  made.next = channels.load();
  while (!channels.compare_exchange_weak(made.next, &made)) {
    if (Channel* const known = findChannel(name)) {
      return *known;  // another thread was faster; the one that was made is not used
    }
  }
  return made;
}

}  // namespace

DebugStream::DebugStream() {
  imbue(std::locale::classic());
}

DebugStream::~DebugStream() = default;
RawDebugHandler::~RawDebugHandler() = default;

RawDebugHandler* _getRawDebugHandler(const String& name, bool errorsFromStart) {
  return &channel(std::string_view(name), errorsFromStart);
}

void setDebugLevels(const String& name, unsigned mask) {
  channel(std::string_view(name), false).setMask(mask);
}

void setDebugSink(const String& name, std::function<void(const DebugRecord&)> sink) {
  channel(std::string_view(name), false).setSink(std::move(sink));
}

}  // namespace Kelvo::Platform
