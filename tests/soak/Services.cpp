// A service with many sessions, and its clients: callers that follow two topics each, and those
// that follow ten and are stopped now and then. How often each call was carried out stands in a
// file, whatever becomes of the service's process.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "Api/Service/Proxy.h"
#include "Api/Service/Service.h"
#include "Kelvo/Platform/TimeoutHandler.h"
#include "tests/soak/Child.h"

namespace {

constexpr unsigned kTopics = 20;  // of the even ones, only the latest event waits
constexpr double kTick = 0.01;    // seconds
constexpr unsigned kEventsATick = 5;

/// A byte for each call, in the file that the driver has made.
class CarriedOut {
 public:
  explicit CarriedOut(const Tovik::Message& setup) {
    const int fd = ::open(of<std::string>(setup, "carriedOut").c_str(), O_RDWR);
    const auto size = ::lseek(fd, 0, SEEK_END);
    size_ = static_cast<std::size_t>(size);
    auto* const memory = ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (memory == MAP_FAILED) {
      throw std::bad_alloc();
    }
    times_ = static_cast<std::uint8_t*>(memory);
  }

  std::uint8_t& operator[](unsigned tag) const { return times_[tag % size_]; }

 private:
  std::size_t size_;
  std::uint8_t* times_;
};

std::string topicName(unsigned topic) {
  return "t" + std::to_string(topic);
}

class Served final : public Kelvo::Platform::TimeoutHandler {
 public:
  explicit Served(const Tovik::Message& setup)
      : run_(of<unsigned>(setup, "run")),
        sabotage_(of<std::string>(setup, "sabotage")),
        carriedOut_(setup),
        service_(of<std::string>(setup, "name"), [](int, unsigned, unsigned) { return true; }) {
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
    if (struck && sabotage_ == "drop") {
      return;
    }
    const auto event = Tovik::object("run", run_, "n", number, "padding", padding_);
    for (int i = struck && sabotage_ == "double" ? 2 : 1; i > 0; --i) {
      service_.publish(topicName(topic), event);
    }
  }

  void take(Tovik::Request& request) {
    const auto tag = request.get<unsigned>("tag");
    ++carriedOut_[tag];
    if (sabotage_ == "mute" && tag % 100 == 50) {
      return muted_.push_back(request);
    }
    request.reply(tag);
  }

  const unsigned run_;
  const std::string sabotage_;
  const CarriedOut carriedOut_;
  const std::string padding_ = std::string(300, 'x');
  std::uint64_t numbers_[kTopics] = {};
  unsigned next_ = 0;
  unsigned burst_ = 0;  // events of the first two topics that are left of it
  std::vector<Tovik::Request> kept_, muted_;
  Tovik::Service service_;
  const Kelvo::Ptr<Kelvo::Platform::Timer> timer_ = Kelvo::Platform::getTimer(this);
  const Commands commands_{{
      {"burst", [this](auto events, auto) { burst_ = static_cast<unsigned>(events); }},
      {"figures",
       [this](auto, auto) {
         answer(Tovik::object("sessions", service_.sessions(), "heap", heapInUse()));
       }},
  }};
};

struct Figures {
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
};

/// One proxy, and what it has seen of its topics.
class Follower {
 public:
  Follower(const Tovik::Message& setup, unsigned index, const CarriedOut& carriedOut,
           Figures& figures)
      : figures_(figures),
        carriedOut_(carriedOut),
        isCalling_(!of<bool>(setup, "stall")),
        limit_(of<double>(setup, "limit")),
        proxy_(of<std::string>(setup, "name"), quick()) {
    if (isCalling_) {
      follow(index % kTopics);
      follow((index + 7) % kTopics);
    } else {
      for (unsigned topic = index % 2; topic < kTopics; topic += 2) {
        follow(topic);
      }
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
    const auto number = of<std::uint64_t>(event, "n");
    if (std::exchange(seen.isFresh, false) != event.HasMember("snapshot")) {
      ++figures_.unordered;
    } else if (!event.HasMember("snapshot")) {
      figures_.doubled += number <= seen.number ? 1U : 0U;
      figures_.gaps += topic % 2 == 1 && number > seen.number + 1 ? 1U : 0U;
    }
    seen.number = number;
    seen.run = of<std::uint64_t>(event, "run");
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
    proxy_.call(Tovik::object("command", tag % 2 == 0 ? "now" : "later", "tag", tag), limit_,
                [this, tag, ended = false](const Tovik::Outcome& outcome) mutable {
                  figures_.again += std::exchange(ended, true) ? 1U : 0U;
                  --inFlight_;
                  count(tag, outcome);
                });
  }

  void count(unsigned tag, const Tovik::Outcome& outcome) {
    if (outcome) {
      ++figures_.replies;
      const bool isRight = outcome.get<unsigned>() == tag && carriedOut_[tag] == 1;
      figures_.wrong += isRight ? 0U : 1U;
    } else {
      ++(outcome.end == Tovik::Outcome::kLost ? figures_.lost : figures_.otherEnds);
    }
  }

  Figures& figures_;
  const CarriedOut& carriedOut_;
  bool isCalling_;
  const Tovik::Proxy::Seconds limit_;
  unsigned inFlight_ = 0;
  std::vector<Seen> seen_ = std::vector<Seen>(kTopics);
  Tovik::Proxy proxy_;
};

/// Answers when all are where they are waited for.
class Followers final : public Kelvo::Platform::TimeoutHandler {
 public:
  explicit Followers(const Tovik::Message& setup) : carriedOut_(setup) {
    for (unsigned i = 0; i < of<unsigned>(setup, "proxies"); ++i) {
      all_.push_back(std::make_unique<Follower>(setup, i, carriedOut_, figures_));
    }
  }

  void timeout() override {
    if (!std::all_of(all_.begin(), all_.end(), [this](const auto& one) {
          return wanted_ == 0 ? one->callsInFlight() == 0 : one->isAt(wanted_);
        })) {
      return timer_->arm(kTick);
    }
    answer();
  }

 private:
  const CarriedOut carriedOut_;
  Figures figures_;
  std::uint64_t wanted_ = 0;  // a run; 0: the end of all calls
  std::vector<std::unique_ptr<Follower>> all_;
  const Kelvo::Ptr<Kelvo::Platform::Timer> timer_ = Kelvo::Platform::getTimer(this);
  const Commands commands_{{
      {"ready",
       [this](auto run, auto) {
         wanted_ = run;
         timer_->arm(0);
       }},
      {"call-ends",
       [this](auto, auto) {
         wanted_ = 0;
         std::for_each(all_.begin(), all_.end(), [](const auto& one) { one->stopCalling(); });
         timer_->arm(0);
       }},
      {"figures",
       [this](auto, auto) {
         const Figures& its = figures_;
         answer(Tovik::object("calls", its.calls, "replies", its.replies, "lost", its.lost,
                              "otherEnds", its.otherEnds, "wrong", its.wrong, "again", its.again,
                              "events", its.events, "unordered", its.unordered, "gaps", its.gaps,
                              "doubled", its.doubled, "heap", heapInUse()));
       }},
  }};
};

}  // namespace

void runService(const Tovik::Message& setup) {
  play<Served>(setup);
}

void runProxies(const Tovik::Message& setup) {
  play<Followers>(setup);
}
