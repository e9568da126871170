// bench: clients that call as fast as they are answered; then the distribution of the times.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "tool/Json.h"
#include "tool/Output.h"
#include "tool/Run.h"
#include "tool/Session.h"
#include "tool/Verb.h"

namespace tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kBarWidth = 40;
constexpr std::size_t kBeforeBar = 32;  // columns of the histogram

double microseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

struct BenchOptions {
  std::string name;
  std::uint64_t size = 64;
  std::uint64_t clients = 1;
  std::uint64_t count = 10000;
};

/// What all clients of the measurement share.
struct Measurement {
  std::string message;
  std::uint64_t toStart = 0;
  std::uint64_t toFinish = 0;
  std::vector<double> times;  // in microseconds
  Clock::time_point begin;
};

class BenchClient : private Session {
 public:
  BenchClient(const std::string& name, Measurement& measurement)
      : Session(name), measurement_(measurement) {
    late_.limit(common.timeLimit());
  }

 private:
  void connected() override { start(); }

  void start() {
    if (measurement_.toStart == 0) {
      return late_.disarm();
    }
    --measurement_.toStart;
    late_.limit(common.timeLimit());
    sent_ = Clock::now();
    send(measurement_.message);
  }

  void received(std::string record) override {
    if (!lint(asRead(record)).replyStatus) {
      throw Failure(Exit::kNotUnderstood, "the answer " + inQuotes(record.substr(0, 80)) +
                                              " is no reply; bench needs a server that replies, "
                                              "such as 'tovik serve'.");
    }
    measurement_.times.push_back(microseconds(Clock::now() - sent_));
    --measurement_.toFinish;
    start();
  }

  Measurement& measurement_;
  Alarm late_{[this] { throw Failure(Exit::kTimeout, lateText()); }};
  Clock::time_point sent_;
};

/// On standard error, if that is a terminal; drawn once for each percent.
class ProgressBar {
 public:
  ProgressBar() : wanted_(!common.quiet && ::isatty(STDERR_FILENO) != 0) {}
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;
  ~ProgressBar() { write("\r\x1b[K"); }

  void show(std::uint64_t done, std::uint64_t total) {
    const std::uint64_t percent = 100 * done / total;
    if (percent != std::exchange(percent_, percent)) {
      const auto filled = static_cast<std::size_t>(kBarWidth * done / total);
      write("\r[" + std::string(filled, '#') + std::string(kBarWidth - filled, ' ') + "] " +
            std::to_string(percent) + "%");
    }
  }

 private:
  void write(const std::string& text) const {
    if (wanted_) {
      [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text.data(), text.size());
    }
  }

  const bool wanted_;
  std::uint64_t percent_ = 101;
};

/// The time that this share of the round trips did not exceed; `times` is sorted.
double percentile(const std::vector<double>& times, double share) {
  const auto rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(times.size())));
  return times[std::max<std::size_t>(rank, 1) - 1];
}

constexpr std::pair<const char*, double> kPercentiles[] = {
    {"p50", 0.5}, {"p90", 0.9}, {"p99", 0.99}, {"p99.9", 0.999}, {"max", 1.0}};

std::string rightAligned(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

/// One line for each doubling of the time.
void printHistogram(const std::vector<double>& times) {
  std::vector<std::size_t> counts;
  const int first = static_cast<int>(std::floor(std::log2(std::max(times.front(), 0.5))));
  for (const double time : times) {
    const int power = static_cast<int>(std::floor(std::log2(std::max(time, 0.5))));
    counts.resize(std::max(counts.size(), static_cast<std::size_t>(power - first) + 1));
    ++counts[static_cast<std::size_t>(power - first)];
  }
  const std::size_t columns = std::max<std::size_t>(terminalColumns(), kBeforeBar + 5);
  const std::size_t width = std::min(kBarWidth, columns - kBeforeBar);
  const std::size_t most = *std::max_element(counts.begin(), counts.end());
  for (std::size_t i = 0; i < counts.size(); ++i) {
    const std::string upTo = rounded(std::exp2(first + static_cast<int>(i) + 1));
    const std::size_t length = (counts[i] * width + most - 1) / most;
    const std::string count = std::to_string(counts[i]);
    std::string line = "below " + rightAligned(upTo, 10) + " us " + rightAligned(count, 9);
    line += "  " + painted(std::string(length, '#'), "32");
    printLine(line);
  }
}

void print(const BenchOptions& options, Measurement& measurement) {
  auto& times = measurement.times;
  const double elapsed = microseconds(Clock::now() - measurement.begin) / 1e6;
  const double perSecond = static_cast<double>(times.size()) / elapsed;
  std::sort(times.begin(), times.end());
  if (wantsJson()) {
    auto object = Tovik::object("count", times.size(), "size_bytes", options.size, "clients",
                                options.clients, "seconds", elapsed, "per_second", perSecond);
    for (const auto& [name, share] : kPercentiles) {
      addMember(object, std::string(name) + "_us", percentile(times, share));
    }
    return printJson(object);
  }
  printLine(counted(times.size(), "round trip") + " of " + counted(options.size, "byte") + " in " +
            rounded(elapsed) + " s, " + rounded(perSecond) + " a second");
  std::string line;
  for (const auto& [name, share] : kPercentiles) {
    line += (line.empty() ? "" : "  ") + std::string(name) + " " +
            rounded(percentile(times, share)) + " us";
  }
  printLine(line);
  printHistogram(times);
}

/// An interrupted measurement has its results, too.
void bench(const BenchOptions& options) {
  Run run(Ending::kIsFailure);
  Measurement measurement;
  const auto size = static_cast<std::size_t>(options.size);  // no more than a record holds
  const std::string padding(size - std::string(R"({"pad":""})").size(), 'x');
  measurement.message = R"({"pad":")" + padding + R"("})";
  measurement.toStart = measurement.toFinish = options.count;
  measurement.begin = Clock::now();
  std::list<BenchClient> clients;
  for (std::uint64_t i = 0; i < options.clients; ++i) {
    clients.emplace_back(options.name, measurement);
  }
  try {
    ProgressBar bar;
    run.until([&] {
      const bool done = measurement.toFinish == 0;
      done ? void() : bar.show(options.count - measurement.toFinish, options.count);
      return done;
    });
  } catch (const Interrupted&) {
    if (!measurement.times.empty()) {
      print(options, measurement);
    }
    throw;
  }
  print(options, measurement);
}

}  // namespace

void addBench(CLI::App& program) {
  auto [verb, options] = addVerb(
      program, "bench", "measures round trips",
      "Sends {\"pad\":\"...\"}, waits for the reply, and so on; any status counts. Prints the "
      "rate, percentiles and a histogram, also after Ctrl-C. The time-out, 5 seconds, is for each "
      "reply.",
      bench);
  verb.argument(kName, name(options.name))
      .option("--size", "BYTES", number(options.size, 10, kLargestText),
              "size of the message (64 unless given)")
      .option("--clients", "N", number(options.clients, 1, 1000),
              "connections at once (1 unless given)")
      .option("--count", "N", number(options.count, 1, 10000000),
              "round trips in all (10000 unless given)");
}

}  // namespace tool
