// Long runs: a server that is killed again and again, one that has nothing to do, and one that
// meets all of it in a random order.

#include <algorithm>
#include <cmath>
#include <csignal>
#include <random>
#include <utility>

#include "tests/soak/Blocking.h"
#include "tests/soak/Log.h"
#include "tests/soak/Scenarios.h"

namespace Soak {

namespace {

constexpr int kInterval = 1;  // second between a client's attempts to connect

/// Past the expiry that each attempt leaves behind; it leads to nothing but wakes the loop once.
void outwaitTimers() {
  nap(kInterval + 0.2);
}

// --- a server that is killed again and again ---

class Restarts {
 public:
  Restarts(const Run& run, const std::string& scenario)
      : run_(run),
        rows_(run, scenario),
        name_(freshName()),
        random_(run.seed),
        server_(startServer({name_, number_, 0, run.sabotage})),
        descriptorsAlone_(server_->resources().descriptors),
        clients_(startClients("clients", {name_, run.form.restartClients, 0, kInterval})) {
    clients_->ask({Verb::kAwaitSubscribed});
  }

  void repeat(const std::string& scenario) {
    if (run_.form.restarts > 1) {
      restart();  // to warm up
    }
    back_.clear();
    const Watch watch({clients_.get()});
    for (unsigned i = 0; i < run_.form.restarts; ++i) {
      progress(scenario, i, run_.form.restarts);
      restart();
      checkConnections();
    }
    report();
    outwaitTimers();
    watch.report(rows_, run_.form.quietSeconds);
  }

 private:
  /// Kills the server in the middle of a broadcast, and starts it again at once or, every fourth
  /// time, after some attempts to reach it may have failed.
  void restart() {
    const double delay = static_cast<double>(random_() % 3000) * 1e-6;
    const double down = random_() % 4 == 0 ? static_cast<double>(random_() % 1500) * 1e-3 : 0;
    server_->tell({Verb::kBroadcast, 200});
    nap(delay);
    server_.reset();
    clients_->ask({Verb::kAwaitLost});
    nap(down);
    server_ = startServer({name_, ++number_, 0, run_.sabotage});
    const auto start = Clock::now();
    clients_->ask({Verb::kAwaitSubscribed});
    back_.push_back(secondsSince(start));
  }

  /// One broadcast reaches each client once, over one connection each.
  void checkConnections() {
    const auto before = clients_->ask<ClientsFigures>({}).received;
    server_->tell({Verb::kBroadcast, 1});
    clients_->ask({Verb::kAwaitSequence, 1, number_});
    const auto received = clients_->ask<ClientsFigures>({}).received - before;
    const auto connections = server_->resources().descriptors - descriptorsAlone_;
    notOnce_ += received != run_.form.restartClients ? 1U : 0U;
    notOne_ += connections != run_.form.restartClients ? 1U : 0U;
  }

  void report() {
    std::sort(back_.begin(), back_.end());
    rows_.atLeast("kill -9 and restart, " + formatted(run_.form.restartClients) + " clients",
                  static_cast<double>(back_.size()), run_.form.restarts,
                  inFullForm(run_.form.restarts, Form().restarts));
    rows_.note("until all are back, median", back_[back_.size() / 2], "s");
    rows_.atMost("until all are back, longest", back_.back(), "s", 2 * kInterval,
                 "subscriptions confirmed; two intervals");
    rows_.exactly("restarts after which not each subscription held", static_cast<double>(notOnce_),
                  0, "one broadcast, received once by each");
    rows_.exactly("restarts after which not each had one connection", static_cast<double>(notOne_),
                  0, "descriptors of the server");
    rows_.delivery(clients_->ask<ClientsFigures>({}));
  }

  const Run& run_;
  const Rows rows_;
  const std::string name_;
  std::mt19937_64 random_;
  std::uint64_t number_ = 1;
  ProcessPtr server_;
  const std::uint64_t descriptorsAlone_;
  const ProcessPtr clients_;
  std::vector<double> back_;
  std::uint64_t notOnce_ = 0;
  std::uint64_t notOne_ = 0;
};

// --- everything in a random order ---

/// The steps follow from the seed alone, so that a run can be had again.
class Mixed {
 public:
  Mixed(const Run& run, const std::string& scenario)
      : run_(run), rows_(run, scenario), scenario_(scenario), random_(run.seed) {}

  void play() {
    startServerAgain();
    descriptorsAlone_ = server_->resources().descriptors;
    startClientsOfAllKinds();
    checkpoint();
    const auto before = resources(*steady_);
    const auto start = Clock::now();
    const double seconds = std::max(run_.form.mixedSeconds, -secondsSince(run_.end));
    for (steps_ = 0; run_.steps > 0 ? steps_ < run_.steps : secondsSince(start) < seconds;) {
      step();
      if (++steps_ % 100 == 0) {
        progress(scenario_, secondsSince(start), seconds);
        checkpoint();
      }
    }
    checkpoint();
    report(before);
  }

 private:
  unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }

  void startClientsOfAllKinds() {
    steady_ = startClients("steady clients", {name_, 30, 10, kInterval});
    mortal_ = startClients("mortal clients", {name_, 20, 5, kInterval});
    blocking_ = std::make_unique<Process>("blocking clients",
                                          [this](int commands) { runBursts(name_, commands); });
  }

  void startServerAgain() {
    server_ = startServer({name_, ++number_, 0, run_.sabotage});
    sequence_ = 0;
    serversCheckpoints_ = 0;
  }

  // What each step does, and how often it comes in a thousand.
  void step() {
    const unsigned what = below(1000);
    const unsigned many = 1 + below(50);
    const double moment = below(5000) * 1e-6;
    if (what < 400) {
      broadcast(many);
    } else if (what < 700) {
      (below(2) == 0 ? steady_ : mortal_)->tell({Verb::kCall, many});
    } else if (what < 800) {
      burst(1 + many / 2);
    } else if (what < 860) {
      changeLevels();
    } else if (what < 900) {
      stopAndContinue(10 * moment);
    } else if (what < 915) {
      server_->tell({Verb::kAdmit, below(3) > 0 ? 1U : 0U});
    } else if (what < 990) {
      nap(moment);
    } else if (what < 994) {
      reopen();
    } else if (what < 998) {
      killClients(moment);
    } else {
      killServer(moment, many);
    }
  }

  void broadcast(unsigned many) {
    server_->tell({Verb::kBroadcast, many});
    sequence_ += many;
  }

  void burst(unsigned clients) { count(blocking_->ask<BurstFigures>({Verb::kBurst, clients})); }

  void count(const BurstFigures& figures) {
    wrong_ += figures.wrong;
    answered_ += figures.answered;
    failed_ += figures.failed;
  }

  void changeLevels() {
    const unsigned levels = below(16);
    (below(2) == 0 ? server_ : steady_)->tell({Verb::kLevels, levels});
  }

  void stopAndContinue(double seconds) {
    const auto& process = below(2) == 0 ? server_ : below(2) == 0 ? steady_ : mortal_;
    process->signal(SIGSTOP);
    nap(seconds);
    process->signal(SIGCONT);
    ++stops_;
  }

  /// Or a client that has yet to notice would be taken for one that is back.
  void awaitLost() const {
    steady_->ask({Verb::kAwaitLost});
    mortal_->ask({Verb::kAwaitLost});
  }

  void reopen() {
    server_->ask({Verb::kClose});
    awaitLost();
    server_->ask({Verb::kOpen});
    ++number_;
    sequence_ = 0;
    ++reopened_;
  }

  void killClients(double moment) {
    collect(*mortal_);
    broadcast(100);
    nap(moment);
    mortal_.reset();
    mortal_ = startClients("mortal clients", {name_, 20, 5, kInterval});
    ++clientKills_;
  }

  /// In the middle of a broadcast, and of a burst of clients that connect.
  void killServer(double moment, unsigned clients) {
    broadcast(100);
    blocking_->tell({Verb::kBurst, clients});
    nap(moment);
    server_.reset();
    awaitLost();
    startServerAgain();
    count(blocking_->await<BurstFigures>());
    ++serverKills_;
  }

  static Resources resources(const Process& process) {
    process.ask<ClientsFigures>({});
    return process.resources();
  }

  /// What a process counted that is about to be killed.
  void collect(const Process& clients) {
    const auto figures = clients.ask<ClientsFigures>({});
    earlier_.received += figures.received;
    earlier_.lost += figures.lost;
    earlier_.doubled += figures.doubled;
    earlier_.calls += figures.calls;
    earlier_.wrong += figures.wrong;
  }

  /// Everybody comes back; calls end; one broadcast reaches each subscriber once.
  void checkpoint() {
    server_->tell({Verb::kAdmit, 1});
    for (const auto& clients : {steady_.get(), mortal_.get()}) {
      clients->ask({Verb::kAwaitSubscribed});
      clients->ask({Verb::kAwaitCalls});
    }
    broadcast(1);
    for (const auto& clients : {steady_.get(), mortal_.get()}) {
      clients->ask({Verb::kAwaitSequence, sequence_, number_});
    }
    burst(1);  // so that the server frees the dead before it is looked at
    const auto figures = server_->ask<ServerFigures>({});
    wrongSequences_ += figures.sequence != sequence_ ? 1U : 0U;
    compareServer(figures);
    ++checkpoints_;
  }

  /// The server's process, with what it was at its own second checkpoint.
  void compareServer(const ServerFigures& figures) {
    const auto now = server_->resources();
    const bool oneEach = now.descriptors - descriptorsAlone_ == 30 + 10 + 20 + 5;
    notOne_ += oneEach ? 0U : 1U;
    if (++serversCheckpoints_ == 2) {
      serverBefore_ = now;
      heapBefore_ = figures.heapInUse;
    } else if (serversCheckpoints_ > 2) {
      gained_ = std::max(gained_, difference(now.kilobytes, serverBefore_.kilobytes));
      heapGained_ = std::max(heapGained_, difference(figures.heapInUse, heapBefore_) / 1024);
      ++compared_;
    }
  }

  static double difference(std::uint64_t now, std::uint64_t before) {
    return static_cast<double>(now) - static_cast<double>(before);
  }

  void report(const Resources& before) {
    collect(*steady_);
    collect(*mortal_);
    rows_.note("steps", static_cast<double>(steps_), "",
               "soak --only mixed --seed " + std::to_string(run_.seed) + " --steps " +
                   std::to_string(steps_));
    rows_.note("kills of the server", serverKills_, "",
               "and clean restarts: " + formatted(reopened_));
    rows_.note("kills of clients", clientKills_, "", "and stops of anybody: " + formatted(stops_));
    rows_.note("calls answered", static_cast<double>(earlier_.calls + answered_), "",
               "blocking ones that found no server: " + formatted(static_cast<double>(failed_)));
    rows_.delivery(earlier_);
    rows_.exactly("wrong answers to blocking clients", static_cast<double>(wrong_), 0);
    rows_.exactly("checkpoints where not each had one connection", static_cast<double>(notOne_), 0,
                  "of " + formatted(static_cast<double>(checkpoints_)));
    rows_.exactly("checkpoints with another sequence", static_cast<double>(wrongSequences_), 0);
    rows_.atMost("heap in use gained by a server", heapGained_, "kB", 64,
                 "worst of " + formatted(compared_) + " checkpoints, against its second");
    rows_.atMost("memory gained by a server", gained_, "kB", 512,
                 "likewise; holes that queues of varied length have left");
    const auto after = resources(*steady_);
    rows_.memory("steady clients", before.kilobytes, after.kilobytes);
    rows_.exactly("descriptors of the steady clients", static_cast<double>(after.descriptors),
                  static_cast<double>(before.descriptors));
    outwaitTimers();
    Watch({server_.get(), steady_.get(), mortal_.get()})
        .reportWakeUps(rows_, run_.form.quietSeconds);
  }

  const Run& run_;
  const Rows rows_;
  const std::string scenario_;
  std::mt19937_64 random_;
  const std::string name_ = freshName();
  ProcessPtr server_, steady_, mortal_, blocking_;
  std::uint64_t number_ = 0;    // of the server's run
  std::uint64_t sequence_ = 0;  // of its last broadcast
  std::uint64_t descriptorsAlone_ = 0;
  unsigned serversCheckpoints_ = 0;  // of the present process
  unsigned compared_ = 0;
  Resources serverBefore_;
  std::uint64_t heapBefore_ = 0;
  double gained_ = 0, heapGained_ = 0;
  ClientsFigures earlier_;
  unsigned long steps_ = 0;
  std::uint64_t answered_ = 0, failed_ = 0, wrong_ = 0;
  std::uint64_t checkpoints_ = 0, notOne_ = 0, wrongSequences_ = 0;
  unsigned serverKills_ = 0, clientKills_ = 0, reopened_ = 0, stops_ = 0;
};

}  // namespace

void restarts(const Run& run, const std::string& scenario) {
  Restarts(run, scenario).repeat(scenario);
}

void idle(const Run& run, const std::string& scenario) {
  const Form& form = run.form;
  if (form.idleSeconds <= 0) {
    return;
  }
  const auto name = freshName();
  const auto server = startServer({name, 1, 0, run.sabotage});
  const auto clients = startClients("clients", {name, form.idleConnections, 0, kInterval});
  clients->ask({Verb::kAwaitSubscribed});
  progress(scenario, 0, form.idleSeconds);
  outwaitTimers();
  const Watch watch({server.get(), clients.get()});
  watch.report(Rows(run, scenario), form.idleSeconds);
}

void mixed(const Run& run, const std::string& scenario) {
  Mixed(run, scenario).play();
}

}  // namespace Soak
