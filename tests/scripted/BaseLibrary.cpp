// Another base library: everything that the base headers declare and do not define, as far as the
// library above uses it. It only writes down what it is asked for.

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

#include "Kelvo/Exception.h"
#include "Kelvo/Platform/Debug.h"
#include "Kelvo/Platform/FdEventHandler.h"
#include "Kelvo/Platform/TimeoutHandler.h"
#include "Kelvo/Ptr.h"
#include "Kelvo/String.h"
#include "Kelvo/ThreadControl.h"
#include "tests/scripted/Script.h"

namespace {

void note(const std::string& line) {
  if (Script* script = Script::current()) {
    script->note(line);
  }
}

void noteEnd(const std::string& line) {
  const Script* script = Script::current();
  if (script != nullptr && script->showsHandlersEnds) {
    note(line);
  }
}

}  // namespace

// --- strings, handles, exceptions ---

namespace Kelvo {

std::atomic<bool> ThreadControl::tsp_{false};

Counted::~Counted() = default;

std::ostream& operator<<(std::ostream& out, const String& string) {
  return out.write(string.data(), static_cast<std::streamsize>(string.size()));
}

Exception::Exception(String&& message, bool external)
    : message_(std::move(message)), external_(external) {}

Exception::~Exception() = default;

const char* Exception::what() const noexcept {
  return message_.data();
}

const char* Exception::name() const noexcept {
  return "Kelvo::Exception";
}

}  // namespace Kelvo

// --- descriptors and timers ---

namespace Kelvo::Platform {

namespace {

class ScriptedControl final : public FdControl {
 public:
  explicit ScriptedControl(FdEventHandler* handler) : script_(*Script::current()) {
    watch_.handler = handler;
    script_.add(watch_);
    script_.note("getFdControl " + number());
  }
  ~ScriptedControl() override {
    if (script_.whenReleasing) {
      script_.whenReleasing();
    }
    script_.note("release " + number());
    script_.remove(watch_);
  }

  void setWriteInterest(bool wanted) override {
    script_.note("interest " + number() + (wanted ? " on" : " off"));
    watch_.writeInterest = wanted;
  }

  void attach(int fd) override {
    const std::string line = "attach " + number() + " " + script_.nameOf(fd);
    if (script_.refusesToAttach) {
      script_.note(line + " refused");
      throw Exception("refused", true);
    }
    script_.note(line);
    watch_.fd = fd;
    if (script_.whenAttaching) {
      script_.whenAttaching(watch_.handler);
    }
  }

  int fd() const override {
    if (script_.showsDescriptorQueries) {
      script_.note("fd " + number());
    }
    return watch_.fd;
  }

  void detach() override {
    script_.note("detach " + number());
    watch_.fd = -1;
    watch_.writeInterest = false;
  }

 private:
  std::string number() const { return std::to_string(watch_.number); }

  Script& script_;
  Script::Watch watch_;
};

class ScriptedTimer final : public Timer {
 public:
  ScriptedTimer(TimeoutHandler* handler, const FdEventHandler* unlessAttached)
      : script_(*Script::current()) {
    clock_.handler = handler;
    clock_.unlessAttached = unlessAttached;
    script_.add(clock_);
    script_.note("getTimer " + number());
  }
  ~ScriptedTimer() override {
    script_.note("releaseTimer " + number());
    script_.remove(clock_);
  }

  void arm(double seconds) override {
    std::ostringstream line;
    line.precision(17);
    line << "arm " << number() << " " << seconds;
    script_.note(line.str());
    clock_.seconds = seconds;
  }

  void disarm() override { script_.note("disarm " + number()); }

 private:
  std::string number() const { return std::to_string(clock_.number); }

  Script& script_;
  Script::Clock clock_;
};

}  // namespace

Ptr<FdControl> getFdControl(FdEventHandler* handler) {
  return Ptr<FdControl>(new ScriptedControl(handler));
}

Ptr<Timer> getTimer(TimeoutHandler* handler, const FdEventHandler* unlessAttached) {
  return Ptr<Timer>(new ScriptedTimer(handler, unlessAttached));
}

FdEventHandler::~FdEventHandler() {
  noteEnd("base ~FdEventHandler");
}

void FdEventHandler::keepWhileRunning(std::shared_ptr<const void> /*owner*/) noexcept {}

void FdEventHandler::deferReadEvent() noexcept {}
void FdEventHandler::deferWriteEvent() noexcept {}

void FdEventHandler::writeFdEvent(int /*fd*/) {
  note("base writeFdEvent");
}

bool FdEventHandler::handleFdException(int /*fd*/) {
  note("base handleFdException");
  return false;
}

TimeoutHandler::~TimeoutHandler() {
  noteEnd("base ~TimeoutHandler");
}

bool TimeoutHandler::handleTimeoutException() {
  note("base handleTimeoutException");
  return false;
}

// --- debug channels: a handler of its own for each request, so that it shows who asked ---

namespace {

std::vector<Origin> recordOrigins;

class ScriptedHandler final : public RawDebugHandler {
 public:
  explicit ScriptedHandler(int number) : number_(number) {}

  void output(const DebugStream& stream, int level, const char* file, const char* function,
              int line) noexcept override {
    if (Script::current() != nullptr) {
      note("output " + std::to_string(level) + " " + file + " " + function + ": " + stream.str());
      recordOrigins.push_back(Origin{file, number_, line});
    }
  }

 private:
  const int number_;
};

std::mutex handlersMutex;
std::deque<ScriptedHandler> handlers;
unsigned levels = 0;

}  // namespace

DebugStream::DebugStream() {
  note("stream");
}

DebugStream::~DebugStream() {
  note("streamGone");
}

RawDebugHandler::~RawDebugHandler() = default;

RawDebugHandler* _getRawDebugHandler(const String& channel, bool errorsFromStart) {
  for (int i = 0; i < 1000; ++i) {
    std::this_thread::yield();  // leaves the time in which an unguarded second request would come
  }
  const std::lock_guard lock(handlersMutex);
  auto& handler = handlers.emplace_back(static_cast<int>(handlers.size()) + 1);
  handler.setMask(levels);
  Script* script = Script::current();
  if (script != nullptr && script->showsHandleRequests) {
    script->note("handle " + std::string(channel) + (errorsFromStart ? " true" : " false"));
  }
  return &handler;
}

}  // namespace Kelvo::Platform

void setLevels(unsigned mask) {
  using namespace Kelvo::Platform;
  const std::lock_guard lock(handlersMutex);
  levels = mask;
  for (auto& handler : handlers) {
    handler.setMask(mask);
  }
}

int handleRequests() {
  const std::lock_guard lock(Kelvo::Platform::handlersMutex);
  return static_cast<int>(Kelvo::Platform::handlers.size());
}

const std::vector<Origin>& origins() {
  return Kelvo::Platform::recordOrigins;
}

void clearOrigins() {
  Kelvo::Platform::recordOrigins.clear();
}

// --- system calls that a test looks into: the linker leads the library's calls here first ---

extern "C" {

int __real_close(int fd);
ssize_t __real_write(int fd, const void* bytes, size_t size);
char* __real_strerror(int error) noexcept;

int __wrap_close(int fd) {
  const Script* script = Script::current();
  if (script != nullptr && script->whenClosing) {
    script->whenClosing();
  }
  return __real_close(fd);
}

ssize_t __wrap_write(int fd, const void* bytes, size_t size) {
  const Script* script = Script::current();
  const ssize_t written = __real_write(fd, bytes, size);
  return script != nullptr && script->writesFallShort && written > 0 ? 1 : written;
}

char* __wrap_strerror(int error) noexcept {
  const Script* script = Script::current();
  char* const text = __real_strerror(error);
  return script != nullptr && script->strerrorKnowsNothing ? nullptr : text;
}

}  // extern "C"
