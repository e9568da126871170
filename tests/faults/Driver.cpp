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
#include <thread>

#include "tests/faults/Scenarios.h"

namespace {

using Faults::Run;
using Faults::Scenario;
using Injection::Fault;

bool nameIsTaken(const std::string& name) {
  std::ifstream table("/proc/net/unix");
  const std::string text{std::istreambuf_iterator<char>(table), {}};
  return text.find("@" + name + "@") != std::string::npos;
}

/// One run, on a thread of its own, so that the loop is made and unmade under the fault too.
Run runScenario(const Scenario& scenario, const Fault& fault) {
  Run run;
  const auto descriptors = openDescriptors();
  {
    const LogSink sink(1, [&](const auto& record) {
      if (record.text.rfind("Server()", 0) != 0) {  // the start-up line, cut if memory is short
        run.errors.append(record.text).append("\n");
      }
    });
    const long blocks = Injection::liveBlocks;
    std::thread([&] {
      Injection::start(fault);
      try {
        run.reached = scenario.body(run);
      } catch (...) {
        run.noteException();
      }
      Injection::counting = false;
    }).join();
    run.blocksLeft = Injection::liveBlocks - blocks;
  }
  for (const int fd : openDescriptors()) {
    if (descriptors.count(fd) == 0) {
      ++run.descriptorsLeft;
      ::close(fd);
    }
  }
  run.nameLeft = nameIsTaken(run.name);
  return run;
}

enum Verdict { kExplained, kUnexplained, kElsewhere };

/// Writes to what an allocation has not given it are RapidJSON's own affair.
void endBySegmentationFault(int signal) {
  if (Injection::failedInRapidJson) {
    ::_exit(kExplained);
  }
  std::signal(signal, SIG_DFL);  // and once more
}

Verdict judge(const Scenario& scenario, const Fault& fault) {
  std::signal(SIGSEGV, endBySegmentationFault);
  const Run run = runScenario(scenario, fault);
  if (!Injection::happened) {
    return kElsewhere;  // the run took another way before it came to that call
  }
  const std::string reason = Faults::unexplained(scenario, fault, run);
  std::fputs(reason.c_str(), stderr);
  return reason.empty() ? kExplained : kUnexplained;
}

struct Tally {
  int tried = 0;
  int unexplained = 0;
};

/// In a child, which the fault may end.
void tryFault(const Scenario& scenario, const Fault& fault, Tally& tally) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(judge(scenario, fault));
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kElsewhere) {
    return;
  }
  ++tally.tried;
  if (status != kExplained) {
    ++tally.unexplained;
    std::printf("UNEXPLAINED %s: %s no. %d fails with %s: %s\n", scenario.name, fault.call.c_str(),
                fault.occurrence, std::strerror(fault.error),
                WIFSIGNALED(status) ? ::strsignal(WTERMSIG(status)) : "see above");
  }
}

/// Every fault of one scenario.
void tryAll(const Scenario& scenario, Tally& total) {
  runScenario(scenario, {});  // what is made once per process is made now
  const Run plain = runScenario(scenario, {});
  if (!plain.reached || plain.blocksLeft != 0) {
    std::printf("%s does not work even without a fault\n", scenario.name);
    ++total.unexplained;
    return;
  }
  for (const auto& kind : Injection::kinds()) {
    Tally tally;
    for (int occurrence = 1; occurrence <= kind.count; ++occurrence) {
      for (const int error : kind.errors) {
        tryFault(scenario, {kind.name, occurrence, error}, tally);
      }
    }
    std::printf("%-10s %-16s %4d calls %6d faults %3d unexplained\n", scenario.name,
                kind.name.c_str(), kind.count, tally.tried, tally.unexplained);
    total.tried += tally.tried;
    total.unexplained += tally.unexplained;
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const std::vector<std::string> wanted(argv + 1, argv + argc);
  Tally total;
  for (const Scenario& scenario : Faults::scenarios()) {
    if (wanted.empty() || std::count(wanted.begin(), wanted.end(), scenario.name) != 0) {
      tryAll(scenario, total);
    }
  }
  std::printf("%d fault points tried, %d unexplained\n", total.tried, total.unexplained);
  return total.tried > 0 && total.unexplained == 0 ? 0 : 1;
}
