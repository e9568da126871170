// Asynchronous clients: subscribers that check every notification, callers that check every reply.

#include <array>
#include <cmath>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "Api/Json/Client.h"
#include "tests/soak/Child.h"

namespace {

/// Counts durations in buckets, each less than 1 % wide, in memory that does not grow.
class Times {
 public:
  void add(std::uint64_t duration) {
    ++counts_[static_cast<std::size_t>(kPart * std::log2(static_cast<double>(duration | 1)))];
    ++count_;
  }

  void clear() { *this = Times(); }

  double p99() const {
    std::size_t index = 0;
    for (std::uint64_t passed = 0; index + 1 < counts_.size(); ++index) {
      passed += counts_[index];
      if (passed > count_ * 99 / 100) {
        break;
      }
    }
    return std::exp2(static_cast<double>(index) / kPart);
  }

 private:
  static constexpr unsigned kPart = 100;  // buckets for each power of two

  std::array<std::uint64_t, 64 * kPart + 1> counts_{};
  std::uint64_t count_ = 0;
};

/// A notification's place.
struct Place {
  std::uint64_t run = 0;
  std::uint64_t sequence = 0;

  bool operator<(const Place& other) const {
    return std::pair(run, sequence) < std::pair(other.run, other.sequence);
  }
};

/// What the clients of the process have in common, and the condition that the driver waits for.
struct Crowd {
  std::uint64_t received = 0;  // notifications
  std::uint64_t lost = 0;      // left out while connected
  std::uint64_t doubled = 0;   // come twice, or after a later one
  std::uint64_t calls = 0;     // answered
  std::uint64_t wrong = 0;     // replies
  Times notices;               // from before the broadcast to the handler
  Times answers;
  unsigned ready = 0;   // clients that have had an answer over their present connection
  unsigned behind = 0;  // subscribers that have not seen the target
  unsigned busy = 0;    // callers that wait for a reply
  Place target;
  bool callOn = false;
  std::function<void()> changed;
};

class Member : public Tovik::AsyncClient {
 public:
  void terminateConnection() override {
    AsyncClient::terminateConnection();
    crowd_.ready -= std::exchange(confirmed_, false) ? 1U : 0U;
    crowd_.changed();
  }

 protected:
  Member(Crowd& crowd, const Tovik::Message& setup)
      : AsyncClient(
            of<std::string>(setup, "name"), [this](auto&, const Tovik::Message& msg) { take(msg); },
            [this](auto&) { begin(); }, of<int>(setup, "interval")),
        crowd_(crowd) {}

  virtual void begin() = 0;
  virtual void take(const Tovik::Message& msg) = 0;

  bool isConfirmed() const { return confirmed_; }
  void confirm() { crowd_.ready += std::exchange(confirmed_, true) ? 0U : 1U; }

  Crowd& crowd_;

 private:
  bool confirmed_ = false;
};

class Subscriber final : public Member {
 public:
  Subscriber(Crowd& crowd, const Tovik::Message& setup) : Member(crowd, setup) {}

  bool isBehind() const { return last_ < crowd_.target; }

 private:
  void begin() override {
    fresh_ = true;
    asyncSendMsg(Tovik::object("command", "set", "notification", true));
  }

  void take(const Tovik::Message& msg) override {
    if (msg.HasMember("type")) {
      crowd_.wrong += isConfirmed() || msg["status"] != 0 ? 1U : 0U;
      confirm();
      return crowd_.changed();
    }
    const bool before = isBehind();
    check({msg["run"].GetUint64(), msg["sequence"].GetUint64()});
    crowd_.notices.add(nowNanoseconds() - msg["sent"].GetUint64());
    if (before && !isBehind()) {
      --crowd_.behind;
      crowd_.changed();
    }
  }

  /// A connection may begin anywhere; from there on, each one has to come, and once.
  void check(const Place& place) {
    ++crowd_.received;
    if (!(last_ < place)) {
      ++crowd_.doubled;
      return;
    }
    if (!std::exchange(fresh_, false)) {
      crowd_.lost += place.sequence - last_.sequence - 1;
    }
    last_ = place;
  }

  Place last_;
  bool fresh_ = true;
};

class Caller final : public Member {
 public:
  Caller(Crowd& crowd, const Tovik::Message& setup) : Member(crowd, setup) {}

  void call(std::uint64_t times) {
    left_ += times;
    if (!busy_ && (left_ > 0 || crowd_.callOn)) {
      begin();
    }
  }

 private:
  /// A call whose connection was lost is made again. Without one, this is the first.
  void begin() override {
    crowd_.busy += std::exchange(busy_, true) ? 0U : 1U;
    send();
  }

  void send() {
    if (!isAttached()) {
      return;
    }
    ++number_;
    since_ = nowNanoseconds();
    asyncSendMsg(Tovik::object("call", number_));
  }

  void take(const Tovik::Message& reply) override {
    ++crowd_.calls;
    crowd_.wrong += !busy_ || reply["status"] != number_ ? 1U : 0U;
    crowd_.answers.add(nowNanoseconds() - since_);
    confirm();
    left_ -= left_ > 0 ? 1U : 0U;
    if (left_ > 0 || crowd_.callOn) {
      send();
    } else {
      crowd_.busy -= std::exchange(busy_, false) ? 1U : 0U;
    }
    crowd_.changed();
  }

  std::uint64_t left_ = 0;
  bool busy_ = false;
  unsigned number_ = 0;
  std::uint64_t since_ = 0;
};

class Clients {
 public:
  explicit Clients(const Tovik::Message& setup) {
    crowd_.changed = [this] { answerIfTrue(); };
    for (auto left = of<unsigned>(setup, "subscribers"); left > 0; --left) {
      subscribers_.push_back(std::make_unique<Subscriber>(crowd_, setup));
    }
    for (auto left = of<unsigned>(setup, "callers"); left > 0; --left) {
      callers_.push_back(std::make_unique<Caller>(crowd_, setup));
    }
  }

 private:
  void awaitSequence(const Place& target) {
    crowd_.target = target;
    crowd_.behind = 0;
    for (const auto& subscriber : subscribers_) {
      crowd_.behind += subscriber->isBehind() ? 1U : 0U;
    }
    await([this] { return crowd_.behind == 0; });
  }

  void call(std::uint64_t times) {
    for (const auto& caller : callers_) {
      caller->call(times);
    }
  }

  void await(std::function<bool()> condition) {
    awaited_ = std::move(condition);
    answerIfTrue();
  }

  void answerIfTrue() {
    if (awaited_ && awaited_()) {
      awaited_ = nullptr;
      answer();
    }
  }

  void tell() const {
    heapInUse();  // what the process takes is looked at next
    answer(Tovik::object("received", crowd_.received, "lost", crowd_.lost, "doubled",
                         crowd_.doubled, "calls", crowd_.calls, "wrong", crowd_.wrong, "noticesP99",
                         crowd_.notices.p99(), "answersP99", crowd_.answers.p99()));
  }

  Crowd crowd_;
  std::function<bool()> awaited_;
  std::vector<std::unique_ptr<Subscriber>> subscribers_;
  std::vector<std::unique_ptr<Caller>> callers_;
  const Commands commands_{{
      // The first five answer when it is so.
      {"ready",  // every client has had an answer over its present connection
       [this](auto, auto) {
         await([this] { return crowd_.ready == subscribers_.size() + callers_.size(); });
       }},
      {"lost", [this](auto, auto) { await([this] { return crowd_.ready == 0; }); }},
      {"seen",  // by every subscriber, that notification of that run
       [this](auto sequence, auto run) {
         awaitSequence({run, sequence});
       }},
      {"call-ends",  // no caller waits for a reply
       [this](auto, auto) {
         crowd_.callOn = false;
         await([this] { return crowd_.busy == 0; });
       }},
      {"figures", [this](auto, auto) { tell(); }},
      {"call", [this](auto times, auto) { call(times); }},
      {"call-on",
       [this](auto, auto) {
         crowd_.callOn = true;
         call(0);
       }},
      {"forget",  // the times
       [this](auto, auto) {
         crowd_.notices.clear();
         crowd_.answers.clear();
       }},
  }};
};

}  // namespace

void runClients(const Tovik::Message& setup) {
  play<Clients>(setup);
}
