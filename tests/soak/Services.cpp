// A service with many sessions, killed every second while calls are in flight, events are published
// and some clients do not read. Each call ends once and is carried out once at most; each topic is
// followed again, its last event first.

#include <malloc.h>
#include <sys/mman.h>

#include <algorithm>
#include <csignal>
#include <new>
#include <vector>

#include "Api/Service/Proxy.h"
#include "Api/Service/Service.h"
#include "Kelvo/Platform/Debug.h"
#include "Kelvo/Platform/EventLoop.h"
#include "Kelvo/Platform/TimeoutHandler.h"
#include "tests/soak/Log.h"
#include "tests/soak/Scenarios.h"

namespace Soak {

namespace {

constexpr unsigned kTopics = 20;  // of the even ones, only the latest event waits
constexpr double kTick = 0.01;    // seconds
constexpr unsigned kEventsATick = 5;
constexpr unsigned kMostCalls = 1 << 24;

/// How often each call was carried out, whatever becomes of the service's process.
std::uint8_t* carriedOut = nullptr;

std::string topicName(unsigned topic) {
  return "t" + std::to_string(topic);
}

// --- the service ---

struct ServedFigures {
  std::uint64_t sessions = 0;
  std::uint64_t heapInUse = 0;
};

class Served final : public Kelvo::Platform::TimeoutHandler {
 public:
  Served(const ServerSetup& setup, int commands)
      : setup_(setup), service_(setup.name, [](int, unsigned, unsigned) { return true; }) {
    for (unsigned topic = 0; topic < kTopics; ++topic) {
      service_.topic(topicName(topic),
                     {"Events.", Tovik::Topic::kKeepLast,
                      topic % 2 == 0 ? Tovik::Topic::kQueueLatest : Tovik::Topic::kQueueAll});
      publish(topic);
    }
    const auto tag = Tovik::required<unsigned>("tag", "Comes back.");
    service_.command("now", "Answers.", {tag}, [this](Tovik::Request request) { take(request); });
    service_.command("later", "Answers at the next tick.", {tag},
                     [this](const Tovik::Request& request) { kept_.push_back(request); });
    timer_->arm(kTick);
    commands_ = std::make_unique<Commands>(commands, [this](const auto& each) { obey(each); });
    commands_->answer(Done{});
  }

  void timeout() override {
    timer_->arm(kTick);
    for (unsigned i = 0; i < kEventsATick; ++i) {
      publish(next_++ % (burst_ > 0 ? 2 : kTopics));
    }
    burst_ -= std::min(burst_, kEventsATick);
    for (auto& request : std::exchange(kept_, {})) {
      take(request);
    }
  }

 private:
  void publish(unsigned topic) {
    const auto number = ++numbers_[topic];
    const bool struck = number % 100 == 50;
    if (struck && setup_.sabotage == Sabotage::kDrop) {
      return;
    }
    const auto event = Tovik::object("run", setup_.run, "n", number, "padding", padding_);
    for (int i = struck && setup_.sabotage == Sabotage::kDouble ? 2 : 1; i > 0; --i) {
      service_.publish(topicName(topic), event);
    }
  }

  void take(Tovik::Request& request) {
    const auto tag = request.get<unsigned>("tag");
    ++carriedOut[tag % kMostCalls];
    if (setup_.sabotage == Sabotage::kMute && tag % 100 == 50) {
      return muted_.push_back(request);
    }
    request.reply(tag);
  }

  void obey(const Command& command) {
    if (command.verb == Verb::kBroadcast) {
      burst_ = static_cast<unsigned>(command.number);
      return;
    }
    ::malloc_trim(0);
    commands_->answer(ServedFigures{service_.sessions(), ::mallinfo2().uordblks});
  }

  const ServerSetup setup_;
  const std::string padding_ = std::string(300, 'x');
  std::uint64_t numbers_[kTopics] = {};
  unsigned next_ = 0;
  unsigned burst_ = 0;  // events that are left of it
  std::vector<Tovik::Request> kept_, muted_;
  Tovik::Service service_;
  const Kelvo::Ptr<Kelvo::Platform::Timer> timer_ = Kelvo::Platform::getTimer(this);
  std::unique_ptr<Commands> commands_;
};

// --- its clients ---

struct ProxyFigures {
  std::uint64_t calls = 0;
  std::uint64_t replies = 0;
  std::uint64_t lost = 0;
  std::uint64_t otherEnds = 0;
  std::uint64_t wrong = 0;  // replies
  std::uint64_t again = 0;  // ends of a call that had ended
  std::uint64_t events = 0;
  std::uint64_t unordered = 0;  // the last event not first, or not once
  std::uint64_t gaps = 0;       // where all events wait
  std::uint64_t doubled = 0;
  std::uint64_t heapInUse = 0;  // bytes
};

struct ProxiesSetup {
  std::string name;
  unsigned proxies = 0;
  bool stall = false;  // they follow ten topics each and do not call
};

/// One proxy, and what it has seen of its topics.
class Follower {
 public:
  Follower(const ProxiesSetup& setup, unsigned index, ProxyFigures& figures)
      : figures_(figures), isCalling_(!setup.stall), proxy_(setup.name, quick()) {
    if (setup.stall) {
      for (unsigned topic = index % 2; topic < kTopics; topic += 2) {
        follow(topic);
      }
    } else {
      follow(index % kTopics);
      follow((index + 7) % kTopics);
    }
    proxy_.onConnect([this] { std::for_each(seen_.begin(), seen_.end(), forget); });
    proxy_.onLoss([this](const std::string&) { call(); });  // which waits for a connection
  }

  bool isAt(std::uint64_t run) const {
    return std::all_of(seen_.begin(), seen_.end(), [run](const Seen& seen) {
      return !seen.isFollowed || (seen.run == run && !seen.isFresh);
    });
  }
  void stopCalling() { isCalling_ = false; }
  unsigned callsInFlight() const { return inFlight_; }

 private:
  struct Seen {
    bool isFollowed = false;
    bool isFresh = true;  // nothing has come over this connection
    std::uint64_t run = 0;
    std::uint64_t number = 0;
  };

  static Tovik::ProxyOptions quick() {
    Tovik::ProxyOptions options;
    options.reconnectInterval = 0.05;
    options.jitter = 0.1;
    return options;
  }

  static void forget(Seen& seen) { seen.isFresh = true; }

  void follow(unsigned topic) {
    seen_[topic].isFollowed = true;
    proxy_.subscribe(topicName(topic),
                     [this, topic](const Tovik::Message& event) { take(topic, event); });
  }

  void take(unsigned topic, const Tovik::Message& event) {
    Seen& seen = seen_[topic];
    const auto number = Tovik::get<std::uint64_t>(event, "n").value();
    if (std::exchange(seen.isFresh, false) != event.HasMember("snapshot")) {
      ++figures_.unordered;
    } else if (!event.HasMember("snapshot")) {
      figures_.doubled += number <= seen.number ? 1U : 0U;
      figures_.gaps += topic % 2 == 1 && number > seen.number + 1 ? 1U : 0U;
    }
    seen.number = number;
    seen.run = Tovik::get<std::uint64_t>(event, "run").value();
    if (++figures_.events % 8 == 0) {
      call();
    }
  }

  void call() {
    if (!isCalling_) {
      return;
    }
    const auto tag = static_cast<unsigned>(++figures_.calls);
    ++inFlight_;
    proxy_.call(Tovik::object("command", tag % 2 == 0 ? "now" : "later", "tag", tag),
                Tovik::Proxy::Seconds(Process::patience) / 4,
                [this, tag, ended = false](const Tovik::Outcome& outcome) mutable {
                  figures_.again += std::exchange(ended, true) ? 1U : 0U;
                  --inFlight_;
                  count(tag, outcome);
                });
  }

  void count(unsigned tag, const Tovik::Outcome& outcome) {
    if (outcome) {
      ++figures_.replies;
      const bool isRight = outcome.get<unsigned>() == tag && carriedOut[tag % kMostCalls] == 1;
      figures_.wrong += isRight ? 0U : 1U;
    } else {
      ++(outcome.end == Tovik::Outcome::kLost ? figures_.lost : figures_.otherEnds);
    }
  }

  ProxyFigures& figures_;
  bool isCalling_;
  unsigned inFlight_ = 0;
  std::vector<Seen> seen_ = std::vector<Seen>(kTopics);
  Tovik::Proxy proxy_;
};

/// Answers when all are where they are waited for.
class Followers final : public Kelvo::Platform::TimeoutHandler {
 public:
  Followers(const ProxiesSetup& setup, int commands)
      : commands_(commands, [this](const Command& command) { obey(command); }) {
    for (unsigned i = 0; i < setup.proxies; ++i) {
      all_.push_back(std::make_unique<Follower>(setup, i, figures_));
    }
    commands_.answer(Done{});
  }

  void timeout() override {
    if (!std::all_of(all_.begin(), all_.end(), [this](const auto& one) {
          return wanted_ == 0 ? one->callsInFlight() == 0 : one->isAt(wanted_);
        })) {
      return timer_->arm(kTick);
    }
    commands_.answer(Done{});
  }

 private:
  void obey(const Command& command) {
    if (command.verb == Verb::kFigures) {
      ::malloc_trim(0);
      figures_.heapInUse = ::mallinfo2().uordblks;
      return commands_.answer(figures_);
    }
    wanted_ = command.verb == Verb::kAwaitSubscribed ? command.number : 0;
    if (wanted_ == 0) {
      std::for_each(all_.begin(), all_.end(), [](const auto& one) { one->stopCalling(); });
    }
    timer_->arm(0);
  }

  ProxyFigures figures_;
  std::uint64_t wanted_ = 0;  // a run; 0: the end of all calls
  std::vector<std::unique_ptr<Follower>> all_;
  Commands commands_;
  const Kelvo::Ptr<Kelvo::Platform::Timer> timer_ = Kelvo::Platform::getTimer(this);
};

template <class Subject, class Setup>
ProcessPtr start(const std::string& who, const Setup& setup) {
  return std::make_unique<Process>(who, [setup](int commands) {
    watchLog(1);
    Kelvo::Platform::setDebugLevels("TovikService", 0);
    const Subject subject(setup, commands);
    Kelvo::Platform::EventLoop::current().run();
  });
}

// --- the scenario ---

class Killing {
 public:
  Killing(const Run& run, const std::string& scenario) : run_(run), rows_(run, scenario) {}

  void play(const std::string& scenario) {
    begin();
    kill();  // to warm up
    begin();
    const auto before = resources();
    for (unsigned i = 0; i < run_.form.serviceKills; ++i) {
      progress(scenario, i, run_.form.serviceKills);
      kill();
      begin();
    }
    stall();
    callers_->ask({Verb::kAwaitCalls});
    report(before);
  }

 private:
  void begin() {
    service_ = start<Served>("service", ServerSetup{name_, ++number_, 0, run_.sabotage});
    began_ = Clock::now();
    callers_->ask({Verb::kAwaitSubscribed, number_});
    stalled_->ask({Verb::kAwaitSubscribed, number_});
    back_ = std::max(back_, secondsSince(began_));
    stalled_->signal(SIGSTOP);
  }

  void kill() {
    nap(std::max(0.0, run_.form.serviceSeconds - secondsSince(began_)));
    service_.reset();
    stalled_->signal(SIGCONT);
  }

  /// Long enough for what waits without a bound of its own to reach the session's.
  void stall() {
    const auto start = service_->ask<ServedFigures>({});
    service_->tell({Verb::kBroadcast, 3000});
    auto now = start;
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    while (now.sessions > run_.form.sessions - stalling_ / 2 && Clock::now() < deadline) {
      nap(0.1);
      now = service_->ask<ServedFigures>({});
    }
    rows_.exactly("sessions left of those that do not read, and of the others",
                  static_cast<double>(now.sessions),
                  static_cast<double>(run_.form.sessions - stalling_ / 2),
                  "those with topics whose events all wait are ended");
    rows_.atMost("heap that those left take",
                 (static_cast<double>(now.heapInUse) - static_cast<double>(start.heapInUse)) /
                     1024 / std::max(1U, stalling_ / 2),
                 "kB", 8, "each; only the latest event of ten topics waits");
    stalled_->signal(SIGCONT);
  }

  Resources resources() const {
    const auto heap = callers_->ask<ProxyFigures>({}).heapInUse;
    auto resources = callers_->resources();
    resources.heap = heap;
    return resources;
  }

  void report(const Resources& before) const {
    const auto figures = callers_->ask<ProxyFigures>({});
    const auto after = resources();
    rows_.atLeast("kill -9 of a service with " + formatted(run_.form.sessions) + " sessions",
                  static_cast<double>(number_ - 2), run_.form.serviceKills,
                  inFullForm(run_.form.serviceKills, Form().serviceKills));
    rows_.note("until all follow again, longest", back_, "s");
    rows_.note("calls", static_cast<double>(figures.calls), "",
               formatted(static_cast<double>(figures.lost)) + " lost with their service");
    rows_.exactly("calls without an end", static_cast<double>(unended(figures)), 0);
    rows_.exactly("calls that have ended twice", static_cast<double>(figures.again), 0);
    rows_.exactly("calls timed out or refused", static_cast<double>(figures.otherEnds), 0);
    rows_.exactly("wrong replies", static_cast<double>(figures.wrong), 0);
    rows_.exactly("calls carried out twice", static_cast<double>(twice(figures.calls)), 0);
    rows_.note("events", static_cast<double>(figures.events), "");
    rows_.exactly("events that are not the last one first, once a connection",
                  static_cast<double>(figures.unordered), 0);
    rows_.exactly("events left out", static_cast<double>(figures.gaps), 0);
    rows_.exactly("events doubled", static_cast<double>(figures.doubled), 0);
    rows_.heap("callers", before.heap, after.heap);
    rows_.atMost("memory gained by the callers",
                 static_cast<double>(after.kilobytes) - static_cast<double>(before.kilobytes), "kB",
                 512, "holes that queues of varied length have left");
    rows_.exactly("descriptors of the callers", static_cast<double>(after.descriptors),
                  static_cast<double>(before.descriptors));
  }

  static std::uint64_t unended(const ProxyFigures& figures) {
    return figures.calls - figures.replies - figures.lost - figures.otherEnds;
  }

  static std::ptrdiff_t twice(std::uint64_t calls) {
    return std::count_if(carriedOut, carriedOut + std::min<std::uint64_t>(calls + 1, kMostCalls),
                         [](std::uint8_t times) { return times > 1; });
  }

  const Run& run_;
  const Rows rows_;
  const std::string name_ = freshName();
  const unsigned stalling_ = run_.form.sessions / 10;
  const ProcessPtr callers_ =
      start<Followers>("callers", ProxiesSetup{name_, run_.form.sessions - stalling_, false});
  const ProcessPtr stalled_ = start<Followers>("stalled", ProxiesSetup{name_, stalling_, true});
  ProcessPtr service_;
  std::uint64_t number_ = 0;  // of the service's run
  Clock::time_point began_;
  double back_ = 0;  // seconds
};

}  // namespace

void services(const Run& run, const std::string& scenario) {
  void* const memory = ::mmap(nullptr, kMostCalls, PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) {
    throw std::bad_alloc();
  }
  carriedOut = static_cast<std::uint8_t*>(memory);
  Killing(run, scenario).play(scenario);
  ::munmap(memory, kMostCalls);
}

}  // namespace Soak
