#include "tests/soak/Scenarios.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <thread>
#include <utility>

namespace Soak {

std::string freshName() {
  static int counter = 0;
  return "tovik-soak-" + std::to_string(::getpid()) + "-" + std::to_string(++counter);
}

ProcessPtr startServer(const ServerSetup& setup) {
  return std::make_unique<Process>("server", [=](int commands) { serve(setup, commands); });
}

ProcessPtr startClients(const std::string& who, const ClientsSetup& setup) {
  return std::make_unique<Process>(who, [=](int commands) { runClients(setup, commands); });
}

std::string inFullForm(unsigned count, unsigned full) {
  return count == full ? "" : formatted(full) + " in the full form";
}

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void nap(double seconds) {
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

void Rows::note(const std::string& what, double figure, const std::string& unit,
                const std::string& note) const {
  run_.report.add({scenario_, what, figure, unit, Allowed::kAnything, 0, note});
}

void Rows::exactly(const std::string& what, double figure, double bound,
                   const std::string& note) const {
  run_.report.add({scenario_, what, figure, "", Allowed::kExactly, bound, note});
}

void Rows::atMost(const std::string& what, double figure, const std::string& unit, double bound,
                  const std::string& note) const {
  run_.report.add({scenario_, what, figure, unit, Allowed::kAtMost, bound, note});
}

void Rows::atLeast(const std::string& what, double figure, double bound,
                   const std::string& note) const {
  run_.report.add({scenario_, what, figure, "", Allowed::kAtLeast, bound, note});
}

void Rows::memory(const std::string& who, std::uint64_t before, std::uint64_t after) const {
  const auto was = static_cast<double>(before);
  atMost("memory gained by the " + who, static_cast<double>(after) - was, "kB",
         std::max(std::floor(was / 100), 128.0), "from " + formatted(was) + " kB");
}

void Rows::heap(const std::string& who, std::uint64_t before, std::uint64_t after) const {
  const double was = static_cast<double>(before) / 1024;
  atMost("heap in use gained by the " + who, static_cast<double>(after) / 1024 - was, "kB",
         std::max(std::floor(was / 100), 64.0), "from " + formatted(was) + " kB");
}

void Rows::delivery(const ClientsFigures& figures) const {
  exactly("notifications lost", static_cast<double>(figures.lost), 0,
          "of " + formatted(static_cast<double>(figures.received)) + " received");
  exactly("notifications doubled or out of order", static_cast<double>(figures.doubled), 0);
  exactly("wrong replies", static_cast<double>(figures.wrong), 0);
}

Watch::Watch(std::vector<const Process*> processes)
    : processes_(std::move(processes)), before_(now()) {}

std::vector<Resources> Watch::now() const {
  std::vector<Resources> all;
  for (const Process* process : processes_) {
    process->tell({Verb::kFigures});
    // The answer shows that it has given back what it has no use for.
    std::uint64_t heap = 0;
    if (process->name() == "server") {
      heap = process->await<ServerFigures>().heapInUse;
    } else {
      process->await<ClientsFigures>();
    }
    all.push_back(process->resources());
    all.back().heap = heap;
  }
  return all;
}

std::uint64_t Watch::wakeUps(double seconds) const {
  std::vector<std::uint64_t> before;
  for (const Process* process : processes_) {
    before.push_back(process->resources().switches);
  }
  nap(seconds);
  std::uint64_t count = 0;
  for (std::size_t i = 0; i < processes_.size(); ++i) {
    count += processes_[i]->resources().switches - before[i];
  }
  return count;
}

void Watch::report(const Rows& rows, double quietSeconds) const {
  const auto after = now();
  for (std::size_t i = 0; i < processes_.size(); ++i) {
    const std::string& who = processes_[i]->name();
    rows.memory(who, before_[i].kilobytes, after[i].kilobytes);
    if (after[i].heap > 0) {
      rows.heap(who, before_[i].heap, after[i].heap);
    }
    rows.exactly("descriptors of the " + who, static_cast<double>(after[i].descriptors),
                 static_cast<double>(before_[i].descriptors));
  }
  reportWakeUps(rows, quietSeconds);
}

void Watch::reportWakeUps(const Rows& rows, double quietSeconds) const {
  nap(0.02);  // for those who have just answered to be waiting again
  rows.exactly("wake-ups while idle", static_cast<double>(wakeUps(quietSeconds)), 0,
               "all processes, " + formatted(quietSeconds) + " s");
}

}  // namespace Soak
