#include "fuzz/Support.h"

#include <assert.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <utility>

void __assert_fail(const char* condition, const char* /*file*/, unsigned /*line*/,
                   const char* /*function*/) {
  throw fuzz::Stop{condition};
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  std::signal(SIGPIPE, SIG_IGN);
  return 0;
}

namespace fuzz {

void finding(const std::string& what) {
  std::fprintf(stderr, "FINDING: %s\n", what.c_str());
  std::abort();
}

void requireEqual(const std::string& actual, const std::string& expected, const char* what) {
  require(actual == expected,
          std::string(what) + "\n  expected: " + expected + "\n  actual:   " + actual);
}

std::string stoppedBy(const std::function<void()>& step) {
  try {
    step();
  } catch (const Stop& stop) {
    return stop.condition;
  }
  return {};
}

bool takeMark(std::string_view& input) {
  const bool marked = !input.empty() && input.front() == '\1';
  input.remove_prefix(marked ? 1 : 0);
  return marked;
}

std::vector<Batch> batchesOf(std::string_view input) {
  constexpr std::size_t kMostRecords = 64;  // what any socket has room for
  std::vector<Batch> batches;
  Batch batch;
  while (!input.empty()) {
    const auto end = std::min(input.find_first_of("\x1D\x1E"), input.size());
    batch.emplace_back(input.substr(0, end));
    const bool last = end == input.size() || input[end] == '\x1D';
    input.remove_prefix(std::min(end + 1, input.size()));
    if (last || input.empty() || batch.size() == kMostRecords) {
      batches.push_back(std::exchange(batch, {}));
    }
  }
  return batches;
}

namespace {

constexpr std::size_t kLongestRead = 4095;

std::string upToNul(const std::string& bytes) {
  return bytes.substr(0, bytes.find('\0'));
}

}  // namespace

std::string takeText(Batch& waiting) {
  std::string text;
  while (!waiting.empty()) {
    const std::string arrived = waiting.front().substr(0, kLongestRead);
    waiting.pop_front();
    text += upToNul(arrived);
    if (arrived.size() < kLongestRead) {
      break;
    }
  }
  return text;
}

std::string cutText(const std::string& record) {
  return upToNul(record.substr(0, kLongestRead));
}

int sendRecord(int fd, const std::string& record) {
  const auto sent = ::send(fd, record.data(), record.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  return sent < 0 ? errno : 0;
}

void sendBatch(int fd, const Batch& batch) {
  for (const std::string& record : batch) {
    require(sendRecord(fd, record) == 0, "the far end cannot send");
  }
}

const Listener& listener() {
  static const Listener listener;
  return listener;
}

Fd Listener::accept() const {
  Fd accepted(::accept(fd.get(), nullptr, nullptr));
  require(accepted.get() >= 0, "nothing to accept");
  return accepted;
}

Log::Log()
    : sink_(0xF, [this](const auto& record) {
        lines_.push_back(std::to_string(record.level) + " " + record.function + ": " + record.text);
      }) {}

void Log::expect(const std::vector<std::string>& lines) {
  if (lines_ != lines) {
    requireEqual(::testing::PrintToString(lines_), ::testing::PrintToString(lines), "the log");
  }
  lines_.clear();
}

}  // namespace fuzz
