// The service layer as an application uses it: a service, and a proxy that calls it.

#include <unistd.h>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Api/Service/Proxy.h"
#include "Api/Service/Service.h"
#include "Kelvo/Platform/EventLoop.h"
#include "bench/support/Driven.h"
#include "bench/support/Work.h"

namespace Bench {

namespace {

using Kelvo::Platform::EventLoop;
using Tovik::get;
using Tovik::optional;
using Tovik::required;

constexpr unsigned kMostInFlight = 10000;

/// Answers its calls in a random order, once there are as many as the last one says.
class Keeper {
 public:
  void take(const Tovik::Request& request) {
    kept_.push_back(request);
    if (kept_.size() < request.get<unsigned>("of")) {
      return;
    }
    std::shuffle(kept_.begin(), kept_.end(), random_);
    for (auto& each : std::exchange(kept_, {})) {
      each.reply();
    }
  }

 private:
  std::vector<Tovik::Request> kept_;
  std::minstd_rand random_;
};

void serve(const std::string& name) {
  Tovik::ServiceOptions options;
  options.callsPerSession = kMostInFlight;
  options.queuedRecords = kMostInFlight;
  options.queuedBytes = std::size_t{kMostInFlight} * 100;
  Tovik::Service service(
      name, [](int /*pid*/, unsigned uid, unsigned /*gid*/) { return uid == ::geteuid(); },
      options);
  Keeper keeper;
  const auto news = parsed<Tovik::Message>(kNews);
  service.topic("news", {"What has moved."});
  service.command("move", "Gives back the status.",
                  {required<unsigned>("status", "Any."), required<std::string>("wanted", "It.")},
                  [](Tovik::Request request) { request.reply(request.get<unsigned>("status")); });
  service.command("tell", "Publishes.", {optional<unsigned>("times", "How often.")},
                  [&](Tovik::Request request) {
                    const auto times = get<unsigned>(request.message(), "times").value_or(1);
                    for (unsigned i = 0; i < times; ++i) {
                      service.publish("news", news);
                    }
                    request.reply();
                  });
  service.command("keep", "Is answered with the others.", {required<unsigned>("of", "How many.")},
                  [&keeper](const Tovik::Request& request) { keeper.take(request); });
  announceReady();
  EventLoop::current().run();
}

class Caller : public Client {
 public:
  explicit Caller(const std::string& name) : proxy_(name) {
    turnUntil([this] { return proxy_.isConnected(); });
  }

  void call() override {
    bool answered = false;
    proxy_.call(request_, kLimit, [&answered](const Tovik::Outcome& outcome) {
      expectStatus(outcome.get<unsigned>().value_or(0));
      answered = true;
    });
    turnUntil([&answered] { return answered; });
  }

  void publish(unsigned count) { ask(Tovik::object("command", "tell", "times", count), 1); }

  void follow() {
    proxy_.subscribe("news", [this](const Tovik::Message&) { ++heard_; });
    ask(Tovik::object("command", "describe"), 1);  // after which it is subscribed
  }

  /// Waits until so many events more have come.
  void hear(unsigned count) {
    turnUntil([this, count] { return heard_ >= count; });
    heard_ -= count;
  }

  /// All of them in flight at once.
  void overlap(unsigned count) { ask(Tovik::object("command", "keep", "of", count), count); }

 private:
  void ask(const Tovik::Message& request, unsigned times) {
    unsigned replies = 0;
    for (unsigned i = 0; i < times; ++i) {
      proxy_.call(request, kLimit, [&replies](const Tovik::Outcome& outcome) {
        if (!outcome) {
          throw std::runtime_error(outcome.error);
        }
        replies += outcome.more ? 0 : 1;
      });
    }
    turnUntil([&replies, times] { return replies == times; });
  }

  template <class Condition>
  static void turnUntil(Condition condition) {
    while (!condition()) {
      EventLoop::current().runOnce(std::chrono::milliseconds(-1));
    }
  }

  static constexpr Tovik::Proxy::Seconds kLimit{60};
  const Tovik::Message request_ = parsed<Tovik::Message>(kRequest);
  Tovik::Proxy proxy_;
  unsigned heard_ = 0;
};

void drive(const std::string& name) {
  Caller caller(name);
  obey(caller,
       {{"publish", [&](unsigned count) { return caller.publish(count), Samples{}; }},
        {"follow", [&](unsigned) { return caller.follow(), Samples{}; }},
        {"hear", [&](unsigned count) { return caller.hear(count), Samples{}; }},
        {"overlap", [&](unsigned count) { return timed(1, [&] { caller.overlap(count); }); }}});
}

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  return Bench::runAs(argc, argv, {{"serve", Bench::serve}, {"drive", Bench::drive}});
}
