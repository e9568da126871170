#include "tests/soak/Clients.h"

#include <malloc.h>

#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "Api/Json/Client.h"
#include "Kelvo/Platform/EventLoop.h"
#include "tests/soak/Log.h"
#include "tests/soak/Process.h"

namespace Soak {

namespace {

/// A notification's place.
struct Place {
  std::uint64_t run = 0;
  std::uint64_t sequence = 0;

  bool operator<(const Place& other) const {
    return std::pair(run, sequence) < std::pair(other.run, other.sequence);
  }
};

/// What the clients of the process have in common, and the condition that the parent waits for.
struct Crowd {
  ClientsFigures figures;
  Times notices;
  Times answers;
  unsigned ready = 0;   // clients that have had an answer over their present connection
  unsigned behind = 0;  // subscribers that have not seen the target
  unsigned busy = 0;    // callers that wait for a reply
  Place target;
  bool callOn = false;
  std::function<void()> changed;
};

class Subscriber final : public Tovik::AsyncClient {
 public:
  Subscriber(Crowd& crowd, const ClientsSetup& setup)
      : AsyncClient(
            setup.name.c_str(), [this](auto&, const Tovik::Message& msg) { take(msg); },
            [this](auto&) { subscribe(); }, setup.interval),
        crowd_(crowd) {}

  void terminateConnection() override {
    AsyncClient::terminateConnection();
    crowd_.ready -= std::exchange(confirmed_, false) ? 1U : 0U;
    crowd_.changed();
  }

  bool isBehind() const { return last_ < crowd_.target; }

 private:
  void subscribe() {
    fresh_ = true;
    Tovik::Message subscribe;
    subscribe.Parse(R"({"command":"set","notification":true})");
    asyncSendMsg(subscribe);
  }

  void take(const Tovik::Message& msg) {
    if (msg.HasMember("type")) {
      crowd_.figures.wrong += confirmed_ || msg["status"] != 0 ? 1U : 0U;
      confirmed_ = true;
      ++crowd_.ready;
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
    ++crowd_.figures.received;
    if (!(last_ < place)) {
      ++crowd_.figures.doubled;
      return;
    }
    if (!std::exchange(fresh_, false)) {
      crowd_.figures.lost += place.sequence - last_.sequence - 1;
    }
    last_ = place;
  }

  Crowd& crowd_;
  Place last_;
  bool confirmed_ = false;
  bool fresh_ = true;
};

class Caller final : public Tovik::AsyncClient {
 public:
  Caller(Crowd& crowd, const ClientsSetup& setup)
      : AsyncClient(
            setup.name.c_str(), [this](auto&, const Tovik::Message& msg) { take(msg); },
            // A call whose connection was lost is made again. Without one, this is the first.
            [this](auto&) { begin(); }, setup.interval),
        crowd_(crowd) {}

  void terminateConnection() override {
    AsyncClient::terminateConnection();
    crowd_.ready -= std::exchange(confirmed_, false) ? 1U : 0U;
    crowd_.changed();
  }

  void call(std::uint64_t times) {
    left_ += times;
    if (!busy_ && (left_ > 0 || crowd_.callOn)) {
      begin();
    }
  }

 private:
  void begin() {
    crowd_.busy += std::exchange(busy_, true) ? 0U : 1U;
    send();
  }

  void send() {
    if (!isAttached()) {
      return;
    }
    Tovik::Message call;
    call.SetObject();
    call.AddMember("call", ++number_, call.GetAllocator());
    since_ = nowNanoseconds();
    asyncSendMsg(call);
  }

  void take(const Tovik::Message& reply) {
    ++crowd_.figures.calls;
    crowd_.figures.wrong += !busy_ || reply["status"] != number_ ? 1U : 0U;
    crowd_.answers.add(nowNanoseconds() - since_);
    crowd_.ready += std::exchange(confirmed_, true) ? 0U : 1U;
    left_ -= left_ > 0 ? 1U : 0U;
    if (left_ > 0 || crowd_.callOn) {
      send();
    } else {
      crowd_.busy -= std::exchange(busy_, false) ? 1U : 0U;
    }
    crowd_.changed();
  }

  Crowd& crowd_;
  std::uint64_t left_ = 0;
  bool busy_ = false;
  bool confirmed_ = false;
  unsigned number_ = 0;
  std::uint64_t since_ = 0;
};

class Clients {
 public:
  Clients(const ClientsSetup& setup, int fd)
      : commands_(fd, [this](const Command& command) { obey(command); }) {
    crowd_.changed = [this] { answerIfTrue(); };
    for (unsigned i = 0; i < setup.subscribers; ++i) {
      subscribers_.push_back(std::make_unique<Subscriber>(crowd_, setup));
    }
    for (unsigned i = 0; i < setup.callers; ++i) {
      callers_.push_back(std::make_unique<Caller>(crowd_, setup));
    }
    commands_.answer(Done{});
  }

 private:
  void obey(const Command& command) {
    switch (command.verb) {
      case Verb::kAwaitSubscribed:
        return await([this] { return crowd_.ready == subscribers_.size() + callers_.size(); });
      case Verb::kAwaitLost:
        return await([this] { return crowd_.ready == 0; });
      case Verb::kAwaitSequence:
        return awaitSequence({command.more, command.number});
      case Verb::kCallOn:
        crowd_.callOn = true;
        return call(0);
      case Verb::kCall:
        return call(command.number);
      case Verb::kAwaitCalls:
        crowd_.callOn = false;
        return await([this] { return crowd_.busy == 0; });
      case Verb::kForgetTimes:
        crowd_.notices.clear();
        return crowd_.answers.clear();
      case Verb::kLevels:
        return setLogLevels(static_cast<unsigned>(command.number));
      default:
        ::malloc_trim(0);
        crowd_.figures.notices = crowd_.notices.spread();
        crowd_.figures.answers = crowd_.answers.spread();
        return commands_.answer(crowd_.figures);
    }
  }

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
      commands_.answer(Done{});
    }
  }

  Crowd crowd_;
  std::function<bool()> awaited_;
  Commands commands_;
  std::vector<std::unique_ptr<Subscriber>> subscribers_;
  std::vector<std::unique_ptr<Caller>> callers_;
};

}  // namespace

void runClients(const ClientsSetup& setup, int commands) {
  watchLog(1);
  const auto clients = std::make_unique<Clients>(setup, commands);
  Kelvo::Platform::EventLoop::current().run();
}

}  // namespace Soak
