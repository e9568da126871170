// Runs each scenario once without a fault to see which calls it makes, then once for every call and
// every error of that call, and for every allocation. Prints how many faults were tried and every
// outcome that is not explained.
//
//   fault_driver [SCENARIO...]

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Kelvo/Platform/Debug.h"
#include "tests/faults/Injection.h"
#include "tests/faults/Oracle.h"
#include "tests/faults/Scenarios.h"
#include "tests/support/Support.h"

namespace {

using Faults::Outcome;
using Faults::Run;
using Faults::Scenario;
using Injection::Fault;

bool nameIsTaken(const std::string& name) {
  std::ifstream table("/proc/net/unix");
  const std::string text{std::istreambuf_iterator<char>(table), {}};
  return text.find("@" + name + "@") != std::string::npos;
}

struct Result {
  Outcome outcome;
  std::map<Injection::Call, int> calls;
  bool happened = false;
};

/// One run, on a thread of its own, so that the loop is made and unmade under the fault too.
Result runScenario(const Scenario& scenario, const Fault& fault) {
  Result result;
  Run run(uniqueName());
  Faults::Notes errors;
  const auto descriptors = openDescriptors();
  Kelvo::Platform::setDebugSink("Tovik", [&](const Kelvo::Platform::DebugRecord& record) {
    if (record.text.rfind("Server()", 0) != 0) {  // the start-up line, cut if memory is short
      errors.add(record.text);
    }
  });
  const long blocks = Injection::liveBlocks();
  std::thread([&] {
    Injection::start(fault);
    try {
      result.outcome.reached = scenario.body(run);
    } catch (...) {
      run.noteException();
    }
    Injection::stop();
  }).join();
  result.outcome.blocksLeft = Injection::liveBlocks() - blocks;
  Kelvo::Platform::setDebugSink("Tovik", nullptr);
  result.calls = Injection::calls();
  result.happened = Injection::happened();
  result.outcome.exceptions = run.exceptions();
  result.outcome.errors = errors.lines();
  for (const int fd : openDescriptors()) {
    if (descriptors.count(fd) == 0) {
      ++result.outcome.descriptorsLeft;
      ::close(fd);
    }
  }
  result.outcome.nameLeft = nameIsTaken(run.name());
  return result;
}

struct Tally {
  int tried = 0;
  int unexplained = 0;
};

/// Says what is wrong with the outcome of one fault; empty if nothing is, null if the run took
/// another way before it came to that call.
std::optional<std::string> judge(const Scenario& scenario, const Fault& fault) {
  const Result result = runScenario(scenario, fault);
  if (!result.happened) {
    return std::nullopt;
  }
  return Faults::unexplained(scenario, fault, result.outcome);
}

/// The same in a child, for faults that may end the process: RapidJSON writes to what an allocation
/// has not given it.
std::optional<std::string> judgeInChild(const Scenario& scenario, const Fault& fault) {
  constexpr int kElsewhere = 2;
  const pid_t child = fork();
  if (child == 0) {
    const auto reason = judge(scenario, fault);
    std::fprintf(stderr, "%s", reason.value_or("").c_str());
    _exit(!reason ? kElsewhere : reason->empty() ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFSIGNALED(status)) {
    return WTERMSIG(status) == SIGSEGV && Injection::failedInRapidJson()
               ? ""
               : "ended by signal " + std::to_string(WTERMSIG(status));
  }
  if (WEXITSTATUS(status) == kElsewhere) {
    return std::nullopt;
  }
  return WEXITSTATUS(status) == 0 ? "" : "see above";
}

void tryFault(const Scenario& scenario, const Fault& fault, Tally& tally) {
  const auto reason =
      fault.call == "malloc" ? judgeInChild(scenario, fault) : judge(scenario, fault);
  tally.tried += reason ? 1 : 0;
  if (reason && !reason->empty()) {
    ++tally.unexplained;
    std::printf("UNEXPLAINED %s: %s no. %d fails with %s: %s\n", scenario.name, fault.call.c_str(),
                fault.occurrence, std::strerror(fault.error), reason->c_str());
  }
}

/// Every fault of one scenario.
Tally tryAll(const Scenario& scenario) {
  runScenario(scenario, {});  // what is made once per process is made now
  const Result plain = runScenario(scenario, {});
  Tally total;
  if (!plain.outcome.reached || plain.outcome.blocksLeft != 0) {
    std::printf("%s does not work even without a fault\n", scenario.name);
    total.unexplained = 1;
    return total;
  }
  for (const auto& [call, count] : plain.calls) {
    Tally tally;
    for (int occurrence = 1; occurrence <= count; ++occurrence) {
      for (const int error : Injection::errorsOf(call)) {
        tryFault(scenario, {call, occurrence, error}, tally);
      }
    }
    std::printf("%-10s %-16s %4d calls %6d faults %3d unexplained\n", scenario.name, call.c_str(),
                count, tally.tried, tally.unexplained);
    total.tried += tally.tried;
    total.unexplained += tally.unexplained;
  }
  return total;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  Kelvo::Platform::setDebugLevels("Tovik", 1);
  const std::vector<std::string> wanted(argv + 1, argv + argc);
  Tally total;
  for (const Scenario& scenario : Faults::scenarios()) {
    if (wanted.empty() || std::count(wanted.begin(), wanted.end(), scenario.name) != 0) {
      const Tally tally = tryAll(scenario);
      total.tried += tally.tried;
      total.unexplained += tally.unexplained;
    }
  }
  std::printf("%d fault points tried, %d unexplained\n", total.tried, total.unexplained);
  return total.tried > 0 && total.unexplained == 0 ? 0 : 1;
}
