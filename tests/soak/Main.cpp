// Load and soak: many processes of this program on the library, for minutes or hours. It prints
// what was found beside what is allowed, and fails if that differs.
//
//     soak [--minutes N | --ci | --short] [--only SCENARIO] [--seed N] [--steps N] [--json FILE]

#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <random>
#include <string>
#include <vector>

#include "tests/soak/Log.h"
#include "tests/soak/Scenarios.h"

namespace Soak {

namespace {

struct Named {
  const char* name;
  Scenario run;
};

constexpr Named kScenarios[] = {
    {"broadcast", crowd}, {"burst", burst},       {"stopped-reader", stoppedReader},
    {"flood", flood},     {"restarts", restarts}, {"services", services},
    {"idle", idle},       {"mixed", mixed},
};

/// Few samples of times, on a machine that does other things: a looser bound for their ratio.
Form ciForm() {
  Form form;
  form.name = "ci";
  form.broadcasts = 1500;
  form.bursts = 4;
  form.pairs = 20;
  form.pacedBroadcasts = 100;
  form.stoppedReaderRatio = 1.5;
  form.floodSeconds = 4;
  form.restarts = 10;
  form.sessions = 100;
  form.serviceKills = 5;
  form.idleSeconds = 3;
  form.mixedSeconds = 12;
  return form;
}

/// Shows that this program works; its times say nothing.
Form shortForm() {
  Form form;
  form.name = "short";
  form.subscribers = 20;
  form.broadcasts = 900;
  form.burstClients = 50;
  form.bursts = 2;
  form.pairs = 1;
  form.pacedBroadcasts = 60;
  form.stoppedReaderRatio = 0;
  form.floodSeconds = 0.4;
  form.restarts = 1;
  form.restartClients = 20;
  form.sessions = 20;
  form.serviceKills = 1;
  form.serviceSeconds = 0.2;
  form.idleSeconds = 0;
  form.quietSeconds = 0.2;
  form.mixedSeconds = 0.4;
  return form;
}

/// A thousand connections take more descriptors than many systems give at first.
void raiseDescriptorLimit() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

void runScenario(const Named& scenario, const Run& run) {
  try {
    scenario.run(run, scenario.name);
  } catch (const std::exception& failure) {
    Rows(run, scenario.name).exactly("failures", 1, 0, failure.what());
  }
}

void runAll(const Run& run, const std::string& only) {
  for (const Named& scenario : kScenarios) {
    if (only.empty() || only == scenario.name) {
      runScenario(scenario, run);
    }
  }
  const auto log = logFigures();
  Rows(run, "all")
      .exactly("log lines nobody expects", static_cast<double>(log.strange), 0,
               "of " + formatted(static_cast<double>(log.lines)));
}

std::vector<std::string> scenarioNames() {
  std::vector<std::string> names;
  for (const Named& scenario : kScenarios) {
    names.emplace_back(scenario.name);
  }
  return names;
}

struct Options {
  double minutes = 0;
  bool ci = false;
  bool isShort = false;
  std::string only;
  std::string json;
};

void addOptions(CLI::App& app, Options& options, Run& run) {
  app.add_option("--minutes", options.minutes,
                 "Mixed traffic fills the time that is left of these");
  app.add_flag("--ci", options.ci, "Less of everything");
  app.add_flag("--short", options.isShort, "Little enough for a test of this program");
  app.add_option("--only", options.only, "One scenario")->check(CLI::IsMember(scenarioNames()));
  app.add_option("--seed", run.seed, "Of the random steps");
  app.add_option("--steps", run.steps, "Ends mixed traffic after so many");
  app.add_option("--json", options.json, "Where to write the table, too");
  app.add_option("--sabotage", run.sabotage)
      ->transform(CLI::CheckedTransformer(kSabotages))
      ->group("");  // for the test of this program
}

/// How much to run, and for how long.
void settle(const Options& options, Run& run) {
  if (options.isShort) {
    run.form = shortForm();
    Process::patience = std::chrono::seconds(run.sabotage == Sabotage::kMute ? 2 : 20);
  } else if (options.ci) {
    run.form = ciForm();
  }
  run.end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                               std::chrono::duration<double>(options.minutes * 60));
}

int main(int argc, char** argv) {
  CLI::App app("Load and soak");
  Report report;
  Run run{Form(), report};
  run.seed = std::random_device()();
  Options options;
  addOptions(app, options, run);
  CLI11_PARSE(app, argc, argv);

  std::signal(SIGPIPE, SIG_IGN);
  raiseDescriptorLimit();
  shareLogFigures();
  settle(options, run);
  std::printf("Form %s, seed %lu\n", run.form.name, run.seed);
  std::fflush(stdout);
  runAll(run, options.only);
  endProgress();
  report.print();
  if (!options.json.empty()) {
    report.writeJson(options.json, run.form.name, run.seed);
  }
  return report.good() ? 0 : 1;
}

}  // namespace

}  // namespace Soak

int main(int argc, char** argv) {
  try {
    return Soak::main(argc, argv);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "soak: %s\n", failure.what());
    return 2;
  }
}
