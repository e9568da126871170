// bench: clients that call as fast as they are answered; then the distribution of the times.

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <list>

#include "tool/Lines.h"
#include "tool/Output.h"
#include "tool/Run.h"
#include "tool/Session.h"
#include "tool/Verbs.h"

namespace tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kBarWidth = 40;

double microseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

std::string rounded(double value) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f", value);
  return text.data();
}

/// What all clients of the measurement share.
struct Measurement {
  Run run{Ending::kIsFailure};
  Tovik::Message message;
  std::uint64_t toStart = 0;
  std::uint64_t toFinish = 0;
  std::vector<double> times;  // in microseconds
  Clock::time_point begin;
};

class BenchClient : private Session {
 public:
  BenchClient(const Options& options, Measurement& measurement)
      : Session(options.name, options),
        measurement_(measurement),
        deadline_(timeLimit(options, 5), [&options] {
          return "the server " + inQuotes(options.name) + " did not answer within " +
                 seconds(timeLimit(options, 5)) + "; give it more with --timeout.";
        }) {
    deadline_.restart();
  }

 private:
  void connected() override { start(); }

  void start() {
    if (measurement_.toStart == 0) {
      return deadline_.disarm();
    }
    --measurement_.toStart;
    deadline_.restart();
    sent_ = Clock::now();
    asyncSendMsg(measurement_.message);
  }

  void received(std::string record) override {
    if (!lint(asRead(record)).replyStatus) {
      throw Failure(Exit::kNotUnderstood, "the answer " + inQuotes(record.substr(0, 80)) +
                                              " is no reply; bench needs a server that replies, "
                                              "such as 'tovik serve'.");
    }
    measurement_.times.push_back(microseconds(Clock::now() - sent_));
    if (--measurement_.toFinish == 0) {
      measurement_.run.finish(Exit::kSuccess);
    }
    start();
  }

  Measurement& measurement_;
  Deadline deadline_;
  Clock::time_point sent_;
};

/// On standard error, if that is a terminal.
class ProgressBar {
 public:
  ProgressBar(const Options& options, const Measurement& measurement)
      : measurement_(measurement), total_(measurement.toFinish) {
    if (!options.quiet && ::isatty(STDERR_FILENO) != 0) {
      draw();
    }
  }
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;
  ~ProgressBar() { write("\r\x1b[K"); }

 private:
  void draw() {
    const std::uint64_t done = total_ - measurement_.toFinish;
    const std::size_t filled = kBarWidth * done / total_;
    drawn_ = true;
    write("\r[" + std::string(filled, '#') + std::string(kBarWidth - filled, ' ') + "] " +
          std::to_string(100 * done / total_) + "%");
    again_.arm(0.1);
  }

  void write(const std::string& text) const {
    if (drawn_) {
      [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text.data(), text.size());
    }
  }

  const Measurement& measurement_;
  const std::uint64_t total_;
  bool drawn_ = false;
  Alarm again_{[this] { draw(); }};
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
void printHistogram(const std::vector<double>& times, Output& output) {
  std::vector<std::size_t> counts;
  const int first = static_cast<int>(std::floor(std::log2(std::max(times.front(), 0.5))));
  for (const double time : times) {
    const int power = static_cast<int>(std::floor(std::log2(std::max(time, 0.5))));
    counts.resize(std::max(counts.size(), static_cast<std::size_t>(power - first) + 1));
    ++counts[static_cast<std::size_t>(power - first)];
  }
  const std::size_t most = *std::max_element(counts.begin(), counts.end());
  for (std::size_t i = 0; i < counts.size(); ++i) {
    const std::string upTo = rounded(std::exp2(first + static_cast<int>(i) + 1));
    const std::size_t length = (counts[i] * kBarWidth + most - 1) / most;
    const std::string count = std::to_string(counts[i]);
    std::string line = "below " + rightAligned(upTo, 10) + " us " + rightAligned(count, 9);
    line += "  " + painted(std::string(length, '#'), "32", output.colour());
    output.line(line);
  }
}

void print(const Options& options, Measurement& measurement) {
  Output output(options);
  auto& times = measurement.times;
  const double elapsed = microseconds(Clock::now() - measurement.begin) / 1e6;
  const double rate = static_cast<double>(times.size()) / elapsed;
  std::sort(times.begin(), times.end());
  if (output.json()) {
    Tovik::Message result;
    result.SetObject();
    addNumber(result, "count", static_cast<std::uint64_t>(times.size()));
    addNumber(result, "size", options.size.value_or(64));
    addNumber(result, "clients", options.clients.value_or(1));
    addNumber(result, "seconds", elapsed);
    addNumber(result, "per_second", rate);
    for (const auto& [name, share] : kPercentiles) {
      addNumber(result, name, percentile(times, share));
    }
    return output.message(result);
  }
  output.line(counted(times.size(), "round trip") + " of " +
              counted(options.size.value_or(64), "byte") + " in " + rounded(elapsed) + " s, " +
              rounded(rate) + " a second");
  std::string line;
  for (const auto& [name, share] : kPercentiles) {
    line += (line.empty() ? "" : "  ") + std::string(name) + " " +
            rounded(percentile(times, share)) + " us";
  }
  output.line(line);
  printHistogram(times, output);
}

}  // namespace

Exit runBench(const Options& options) {
  Measurement measurement;
  const std::string padding(options.size.value_or(64) - std::string(R"({"pad":""})").size(), 'x');
  measurement.message = messageFrom(R"({"pad":")" + padding + R"("})");
  measurement.toStart = measurement.toFinish = options.count.value_or(10000);
  measurement.begin = Clock::now();
  std::list<BenchClient> clients;
  for (std::uint64_t i = 0; i < options.clients.value_or(1); ++i) {
    clients.emplace_back(options, measurement);
  }
  {
    const ProgressBar bar(options, measurement);
    measurement.run.untilFinished();
  }
  print(options, measurement);
  return Exit::kSuccess;
}

}  // namespace tool
