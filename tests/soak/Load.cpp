// Many at once: a crowd of subscribers, a burst of connects, a reader that has stopped, a flood.

#include <algorithm>
#include <csignal>
#include <utility>

#include "tests/soak/Blocking.h"
#include "tests/soak/Scenarios.h"

namespace Soak {

namespace {

/// Broadcasts to receivers, one window ahead of the slowest. A server may be faster than its
/// subscribers, and its queues have no bound.
class Broadcaster {
 public:
  Broadcaster(const Process& server, const std::vector<ProcessPtr>& receivers)
      : server_(server), receivers_(receivers) {}

  /// Lets the queues grow as long as `until` ever can, for memory to have been as large.
  void lag() {
    for (const auto& receiver : receivers_) {
      receiver->signal(SIGSTOP);
    }
    server_.tell({Verb::kBroadcast, kSmall + kLarge});
    server_.ask<ServerFigures>({});
    for (const auto& receiver : receivers_) {
      receiver->signal(SIGCONT);
    }
    sent_ += kSmall + kLarge;
    awaitAll(sent_);
  }

  /// Until that many have been sent in all and received.
  void until(std::uint64_t total, const std::string& scenario, double of) {
    while (sent_ < total) {
      const auto before = sent_;
      const auto count = std::min(windowSize(), total - sent_);
      server_.tell({Verb::kBroadcast, count});
      sent_ += count;
      awaitAll(before);
      progress(scenario, static_cast<double>(before), of);
    }
    awaitAll(sent_);
  }

  std::uint64_t sent() const { return sent_; }

 private:
  // Two windows fit the sockets as a rule; every eighth is more than a socket takes.
  static constexpr std::uint64_t kSmall = 100;
  static constexpr std::uint64_t kLarge = 400;
  std::uint64_t windowSize() { return ++windows_ % 8 == 0 ? kLarge : kSmall; }

  void awaitAll(std::uint64_t sequence) const {
    for (const auto& receiver : receivers_) {
      receiver->tell({Verb::kAwaitSequence, sequence, sequence == 0 ? 0U : 1U});
    }
    for (const auto& receiver : receivers_) {
      receiver->await();
    }
  }

  const Process& server_;
  const std::vector<ProcessPtr>& receivers_;
  std::uint64_t sent_ = 0;
  std::uint64_t windows_ = 0;
};

ClientsFigures operator+(ClientsFigures left, const ClientsFigures& right) {
  left.received += right.received;
  left.lost += right.lost;
  left.doubled += right.doubled;
  left.wrong += right.wrong;
  left.notices.p99 = std::max(left.notices.p99, right.notices.p99);
  return left;
}

double milliseconds(std::uint64_t nanoseconds) {
  return static_cast<double>(nanoseconds) / 1e6;
}

double microseconds(std::uint64_t nanoseconds) {
  return static_cast<double>(nanoseconds) / 1e3;
}

double quantile(std::vector<double> values, double part) {
  std::sort(values.begin(), values.end());
  return values[static_cast<std::size_t>(part * static_cast<double>(values.size() - 1) + 0.5)];
}

}  // namespace

void crowd(const Run& run, const std::string& scenario) {
  const Form& form = run.form;
  const Rows rows(run, scenario);
  const auto name = freshName();
  const auto server = startServer({name, 1, 0, run.sabotage});
  std::vector<ProcessPtr> receivers;
  for (const char* who : {"one half", "other half"}) {
    receivers.push_back(startClients(who, {name, form.subscribers / 2}));
  }
  for (const auto& receiver : receivers) {
    receiver->ask({Verb::kAwaitSubscribed});
  }
  Broadcaster broadcaster(*server, receivers);
  broadcaster.lag();
  broadcaster.until(form.broadcasts / 10, scenario, form.broadcasts);
  const Watch watch({server.get(), receivers[0].get(), receivers[1].get()});
  const auto start = Clock::now();
  const auto before = broadcaster.sent();
  broadcaster.until(form.broadcasts, scenario, form.broadcasts);
  const double seconds = secondsSince(start);
  const auto figures = receivers[0]->ask<ClientsFigures>({Verb::kFigures}) +
                       receivers[1]->ask<ClientsFigures>({Verb::kFigures});
  rows.atLeast("broadcasts to " + formatted(form.subscribers) + " subscribers",
               static_cast<double>(server->ask<ServerFigures>({Verb::kFigures}).sequence),
               form.broadcasts, inFullForm(form.broadcasts, Form().broadcasts));
  rows.exactly("notifications received", static_cast<double>(figures.received),
               static_cast<double>(form.broadcasts) * (form.subscribers / 2 * 2));
  rows.delivery(figures);
  rows.note("notifications a second",
            static_cast<double>(form.broadcasts - before) * form.subscribers / seconds, "");
  rows.note("p99 of the delivery", milliseconds(figures.notices.p99), "ms",
            "100 or 400 broadcasts at a stroke");
  watch.report(rows, form.quietSeconds);
}

namespace {

/// Every other time the server sleeps meanwhile, and wakes up to a full backlog.
BurstFigures burstRepeatedly(const Form& form, const Process& server, const Process& clients,
                             const std::string& scenario) {
  BurstFigures sum;
  for (unsigned i = 0; i < form.bursts; ++i) {
    progress(scenario, i, form.bursts);
    const bool asleep = i % 2 == 1;
    if (asleep) {
      server.signal(SIGSTOP);
    }
    clients.tell({Verb::kBurst, form.burstClients});
    if (asleep) {
      nap(0.1);
      server.signal(SIGCONT);
    }
    const auto figures = clients.await<BurstFigures>();
    sum.answered += figures.answered;
    sum.wrong += figures.wrong;
    sum.failed += figures.failed;
    sum.longest = std::max(sum.longest, figures.longest);
  }
  return sum;
}

}  // namespace

void burst(const Run& run, const std::string& scenario) {
  const Form& form = run.form;
  const Rows rows(run, scenario);
  const auto name = freshName();
  const auto server = startServer({name, 1, 0, run.sabotage});
  const Process clients("clients", [&](int commands) { runBursts(name, commands); });
  clients.ask<BurstFigures>({Verb::kBurst, form.burstClients});
  const Watch watch({server.get()});
  const auto clientsBefore = clients.resources();
  const BurstFigures sum = burstRepeatedly(form, *server, clients, scenario);
  const double expected = static_cast<double>(form.burstClients) * form.bursts;
  rows.exactly("clients answered, " + formatted(form.burstClients) + " at once",
               static_cast<double>(sum.answered), expected,
               "backlog of 5; every other time the server is stopped for 100 ms");
  rows.exactly("wrong answers and failures", static_cast<double>(sum.wrong + sum.failed), 0);
  rows.exactly("admissions", static_cast<double>(server->ask<ServerFigures>({}).admitted),
               expected + form.burstClients, "the warm-up included");
  rows.note("longest from connect to answer", milliseconds(sum.longest), "ms");
  rows.exactly("descriptors of the clients", static_cast<double>(clients.resources().descriptors),
               static_cast<double>(clientsBefore.descriptors));
  watch.report(rows, form.quietSeconds);
}

namespace {

/// Healthy readers in the company of one that has stopped, and without it, in turn.
class StoppedReader {
 public:
  StoppedReader(const Run& run, const std::string& scenario)
      : form_(run.form),
        rows_(run, scenario),
        name_(freshName()),
        server_(startServer({name_, 1, 1000, run.sabotage})),
        healthy_(startClients("healthy readers", {name_, kHealthy})) {
    healthy_->ask({Verb::kAwaitSubscribed});
  }

  void compare(const std::string& scenario) {
    p99(false);
    p99(true);
    weigh();
    const Watch watch({server_.get(), healthy_.get()});
    for (unsigned i = 0; i < form_.pairs; ++i) {
      progress(scenario, i, form_.pairs);
      const bool stoppedFirst = i % 2 == 1;
      const double first = p99(stoppedFirst);
      const double second = p99(!stoppedFirst);
      with_.push_back(stoppedFirst ? first : second);
      without_.push_back(stoppedFirst ? second : first);
      ratios_.push_back(with_.back() / without_.back());
    }
    weigh();
    report();
    watch.report(rows_, form_.quietSeconds);
  }

 private:
  static constexpr unsigned kHealthy = 99;
  static constexpr std::uint64_t kMicroseconds = 2000;  // between broadcasts

  ProcessPtr stopped() const {
    auto reader = startClients("stopped reader", {name_, 1});
    reader->ask({Verb::kAwaitSubscribed});
    reader->signal(SIGSTOP);
    return reader;
  }

  void pace(std::uint64_t count, std::uint64_t interval) {
    server_->ask({Verb::kPace, count, interval});
    sent_ += count;
    healthy_->ask({Verb::kAwaitSequence, sent_, 1});
  }

  /// Lets the reader catch up: it gets all that has waited for it.
  void resume(const Process& reader) {
    reader.signal(SIGCONT);
    reader.ask({Verb::kAwaitSequence, sent_, 1});
    const auto figures = reader.ask<ClientsFigures>({});
    lost_ += figures.lost + figures.doubled;
  }

  double p99(bool withStopped) {
    ProcessPtr reader = withStopped ? stopped() : nullptr;
    healthy_->tell({Verb::kForgetTimes});
    pace(form_.pacedBroadcasts, kMicroseconds);
    const auto spread = healthy_->ask<ClientsFigures>({}).notices;
    if (reader) {
      resume(*reader);
    }
    return microseconds(spread.p99);
  }

  /// What a notification costs that waits for the stopped reader, once its socket is full.
  void weigh() {
    const auto reader = stopped();
    pace(200, 500);
    const auto before = server_->ask<ServerFigures>({});
    pace(300, 500);
    const auto after = server_->ask<ServerFigures>({});
    const auto grown = static_cast<double>(after.heapInUse) - static_cast<double>(before.heapInUse);
    overhead_ = grown / 300 - static_cast<double>(after.textSize);
    textSize_ = static_cast<double>(after.textSize);
    resume(*reader);
  }

  void report() const {
    rows_.note("p99 of 99 readers alone", quantile(without_, 0.5), "us",
               "quartiles " + formatted(quantile(without_, 0.25)) + " to " +
                   formatted(quantile(without_, 0.75)));
    rows_.note("p99 beside a stopped one", quantile(with_, 0.5), "us",
               "quartiles " + formatted(quantile(with_, 0.25)) + " to " +
                   formatted(quantile(with_, 0.75)));
    reportRatio("ratio, median of " + formatted(form_.pairs) + " pairs", quantile(ratios_, 0.5),
                "quartiles " + formatted(quantile(ratios_, 0.25)) + " to " +
                    formatted(quantile(ratios_, 0.75)));
    rows_.atMost("memory of a waiting notification beyond its text", overhead_, "bytes", 80,
                 "text of " + formatted(textSize_) + " bytes");
    rows_.exactly("what stopped readers missed after all", static_cast<double>(lost_), 0);
    rows_.delivery(healthy_->ask<ClientsFigures>({}));
  }

  void reportRatio(const std::string& what, double ratio, const std::string& note) const {
    if (form_.stoppedReaderRatio > 0) {
      rows_.atMost(what, ratio, "", form_.stoppedReaderRatio, note);
    } else {
      rows_.note(what, ratio, "", note);
    }
  }

  const Form& form_;
  const Rows rows_;
  const std::string name_;
  const ProcessPtr server_;
  const ProcessPtr healthy_;
  std::uint64_t sent_ = 0;
  std::uint64_t lost_ = 0;
  double overhead_ = 0;
  double textSize_ = 0;
  std::vector<double> with_, without_, ratios_;
};

}  // namespace

void stoppedReader(const Run& run, const std::string& scenario) {
  StoppedReader(run, scenario).compare(scenario);
}

namespace {

constexpr int kFloodRounds = 8;

/// Callers that call without a pause, alone and beside the flood, in turn.
struct CallersInTurn {
  const Process& flooder;
  const Process& callers;
  std::vector<double> p99Alone{}, p99Beside{};  // microseconds
  double callsAlone = 0, callsBeside = 0;

  Spread round(bool flooded, double seconds) const {
    callers.tell({Verb::kForgetTimes});
    callers.tell({Verb::kCallOn});
    if (flooded) {
      flooder.ask<std::uint64_t>({Verb::kFlood, static_cast<std::uint64_t>(seconds * 1000)});
    } else {
      nap(seconds);
    }
    callers.ask({Verb::kAwaitCalls});
    return callers.ask<ClientsFigures>({}).answers;
  }

  void compare(double seconds, const std::string& scenario) {
    for (int i = 0; i < kFloodRounds; ++i) {
      progress(scenario, i, kFloodRounds);
      const Spread alone = round(false, seconds / kFloodRounds / 2);
      const Spread beside = round(true, seconds / kFloodRounds / 2);
      p99Alone.push_back(microseconds(alone.p99));
      p99Beside.push_back(microseconds(beside.p99));
      callsAlone += static_cast<double>(alone.count);
      callsBeside += static_cast<double>(beside.count);
    }
  }

  void report(const Rows& rows) const {
    rows.note("p99 of callers alone", quantile(p99Alone, 0.5), "us",
              "median of " + formatted(kFloodRounds) + " rounds");
    // One message of each connection a turn: the flood is one more caller.
    rows.atMost("p99 of callers beside the flood", quantile(p99Beside, 0.5), "us",
                std::max(3 * quantile(p99Alone, 0.5), 20000.0),
                "worst round " + formatted(quantile(p99Beside, 1)) + " us");
    // Three busy processes share the processors then instead of two.
    rows.atLeast("calls answered beside the flood, of those alone", callsBeside / callsAlone, 0.1);
  }
};

}  // namespace

void flood(const Run& run, const std::string& scenario) {
  const double seconds = run.form.floodSeconds;
  const Rows rows(run, scenario);
  const auto name = freshName();
  const auto server = startServer({name, 1, 0, run.sabotage});
  const Process flooder("flooder", [&](int commands) { runFlood(name, commands); });
  const auto callers = startClients("callers", {name, 0, 20});
  callers->ask({Verb::kAwaitSubscribed});
  CallersInTurn inTurn{flooder, *callers};
  inTurn.round(true, seconds / 5);
  const Watch watch({server.get(), callers.get()});
  const auto before = server->ask<ServerFigures>({}).notes;
  inTurn.compare(seconds, scenario);
  rows.note("messages of the flooding client",
            static_cast<double>(server->ask<ServerFigures>({}).notes - before), "",
            "taken by the server, beside 20 callers");
  inTurn.report(rows);
  rows.exactly("wrong replies", static_cast<double>(callers->ask<ClientsFigures>({}).wrong), 0);
  watch.report(rows, run.form.quietSeconds);
}

}  // namespace Soak
