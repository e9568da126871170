#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/soak/Clients.h"
#include "tests/soak/Process.h"
#include "tests/soak/Report.h"
#include "tests/soak/Server.h"

namespace Soak {

/// How much of each scenario to run: the full form, unless changed.
struct Form {
  const char* name = "full";
  unsigned subscribers = 1000;
  unsigned broadcasts = 100000;
  unsigned burstClients = 500;  // at once
  unsigned bursts = 120;
  unsigned pairs = 150;             // of rounds with and without a stopped reader
  unsigned pacedBroadcasts = 200;   // in each round
  double stoppedReaderRatio = 1.1;  // allowed; 0: any
  double floodSeconds = 40;
  unsigned restarts = 200;
  unsigned restartClients = 50;
  unsigned idleConnections = 200;
  unsigned sessions = 1000;  // of a service, one in ten of which does not read
  unsigned serviceKills = 100;
  double serviceSeconds = 1;  // from each kill to the next, at least
  double idleSeconds = 60;    // 0: not at all
  double quietSeconds = 1;    // at the end of every other scenario
  double mixedSeconds = 60;   // at least
};

struct Run {
  Form form;
  Report& report;
  unsigned long seed = 0;
  unsigned long steps = 0;  // of mixed traffic; 0: as the time allows
  Sabotage sabotage = Sabotage::kNone;
  Clock::time_point end{};  // of the program's time
};

using Scenario = void (*)(const Run&, const std::string& scenario);

void crowd(const Run& run, const std::string& scenario);
void burst(const Run& run, const std::string& scenario);
void stoppedReader(const Run& run, const std::string& scenario);
void flood(const Run& run, const std::string& scenario);
void restarts(const Run& run, const std::string& scenario);
void services(const Run& run, const std::string& scenario);
void idle(const Run& run, const std::string& scenario);
void mixed(const Run& run, const std::string& scenario);

// --- what they share ---

using ProcessPtr = std::unique_ptr<Process>;

/// A server name that no other process and no other call of this one uses.
std::string freshName();

ProcessPtr startServer(const ServerSetup& setup);
ProcessPtr startClients(const std::string& who, const ClientsSetup& setup);

/// The note beside a count that another form has less of.
std::string inFullForm(unsigned count, unsigned full);

double secondsSince(Clock::time_point start);
void nap(double seconds);

/// Adds figures of one scenario to the report.
class Rows {
 public:
  Rows(const Run& run, std::string scenario) : run_(run), scenario_(std::move(scenario)) {}

  void note(const std::string& what, double figure, const std::string& unit,
            const std::string& note = "") const;
  void exactly(const std::string& what, double figure, double bound,
               const std::string& note = "") const;
  void atMost(const std::string& what, double figure, const std::string& unit, double bound,
              const std::string& note = "") const;
  void atLeast(const std::string& what, double figure, double bound,
               const std::string& note = "") const;

  /// Memory that a process took more at the end than after it had warmed up: 1 % are allowed, or
  /// 128 kB if that is more. Small processes are smaller than the reserves of the C library.
  void memory(const std::string& who, std::uint64_t before, std::uint64_t after) const;
  /// Likewise, what it has allocated and not freed. The C library's caches count as in use.
  void heap(const std::string& who, std::uint64_t before, std::uint64_t after) const;
  void delivery(const ClientsFigures& figures) const;

 private:
  const Run& run_;
  const std::string scenario_;
};

/// What processes take after they have warmed up, compared with the end of the scenario.
class Watch {
 public:
  explicit Watch(std::vector<const Process*> processes);

  /// Memory, descriptors, and wake-ups during so many seconds in which nothing happens.
  void report(const Rows& rows, double quietSeconds) const;
  void reportWakeUps(const Rows& rows, double quietSeconds) const;

 private:
  std::vector<Resources> now() const;
  std::uint64_t wakeUps(double seconds) const;

  const std::vector<const Process*> processes_;
  const std::vector<Resources> before_;
};

}  // namespace Soak
