// What the service layer costs beside the core: a call, an event to a thousand followers, ten
// thousand calls in flight, an idle session. The two take turns in blocks; medians are printed.

#include <malloc.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "Api/Json/Client.h"
#include "Api/Json/Server.h"
#include "Api/Service/Proxy.h"
#include "Api/Service/Service.h"
#include "Kelvo/Platform/EventLoop.h"
#include "bench/support/Driven.h"
#include "bench/support/Raw.h"

namespace Bench {

namespace {

using Kelvo::Platform::EventLoop;
using Tovik::object;

constexpr int kBlocks = 41;
constexpr Tovik::Proxy::Seconds kLimit(10);

bool admitAll(int, unsigned, unsigned) {
  return true;
}

void turnUntil(const std::function<bool()>& condition) {
  while (!condition()) {
    EventLoop::current().runOnce(std::chrono::milliseconds(100));
  }
}

double timeOf(const std::function<void()>& work) {
  const auto begin = nowNanoseconds();
  work();
  return static_cast<double>(nowNanoseconds() - begin);
}

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + kBlocks / 2, values.end());
  return values[kBlocks / 2];
}

/// Both take turns; the median time of one block of each, and of the ratios of neighbours.
void compare(const char* what, unsigned units, const std::function<void()>& core,
             const std::function<void()>& layer) {
  std::vector<double> cores, layers, ratios;
  for (int block = 0; block < kBlocks; ++block) {
    cores.push_back(timeOf(core) / units);
    layers.push_back(timeOf(layer) / units);
    ratios.push_back(layers.back() / cores.back());
  }
  std::printf("%-28s core %8.0f ns   service %8.0f ns   ratio %.2f\n", what, median(cores),
              median(layers), median(ratios));
}

std::string nameOf(const char* what) {
  return std::string("tovik-bench-") + what + "-" + std::to_string(getpid());
}

/// A process that serves both ways until this one ends. It has to begin before this one has a loop.
void startServer() {
  const std::string plain = nameOf("plain"), service = nameOf("service");
  if (must(::fork(), "fork") != 0) {
    return;
  }
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const Tovik::Server server(
      plain, [](Tovik::Connection& client, const Tovik::Message&) { client.acknowledge(0); },
      admitAll);
  Tovik::Service served(service, admitAll);
  served.command("move", "Moves.", {Tovik::required<int>("axis", "Which.")},
                 [](Tovik::Request request) { request.reply(); });
  EventLoop::current().run();
}

void compareCalls() {
  constexpr unsigned kCalls = 500;
  const std::string plain = nameOf("plain"), service = nameOf("service");
  const auto request =
      object("command", "move", "axis", 2, "position", 1250, "remark", "as agreed");
  unsigned replies = 0;
  bool connected = false;
  while (::close(tryConnectTo(plain)) != 0 || ::close(tryConnectTo(service)) != 0) {
    ::usleep(1000);
  }
  Tovik::AsyncClient client(
      plain, [&replies](auto&, const auto&) { ++replies; },
      [&connected](auto&) { connected = true; }, 1);
  Tovik::Proxy proxy(service);
  turnUntil([&] { return connected && proxy.isConnected(); });
  const auto once = [&replies](const auto& send) {
    const unsigned before = replies;
    send();
    turnUntil([&replies, before] { return replies != before; });
  };
  compare(
      "call", kCalls,
      [&] {
        for (unsigned i = 0; i < kCalls; ++i) {
          once([&] { client.asyncSendMsg(request); });
        }
      },
      [&] {
        for (unsigned i = 0; i < kCalls; ++i) {
          once([&] { proxy.call(request, kLimit, [&replies](Tovik::Outcome) { ++replies; }); });
        }
      });
}

std::vector<int> connectMany(const std::string& name, unsigned count, const char* subscription) {
  std::vector<int> clients;
  while (clients.size() < count) {
    const int client = tryConnectTo(name);
    if (client >= 0) {
      writeRecord(client, subscription);
      clients.push_back(client);
    }
    EventLoop::current().dispatch();
  }
  while (EventLoop::current().dispatch()) {
  }
  return clients;
}

void drain(const std::vector<int>& clients) {
  Record record;
  for (const int client : clients) {
    record.readFrom(client);
  }
}

void compareEvents() {
  constexpr unsigned kFollowers = 1000;
  Tovik::Server server(nameOf("events"), {}, admitAll);
  Tovik::Service service(nameOf("topics"), admitAll);
  service.topic("news", {"News."});
  const auto plain =
      connectMany(nameOf("events"), kFollowers, R"({"command":"set","notification":true})");
  const auto followers =
      connectMany(nameOf("topics"), kFollowers, R"({"command":"subscribe","topics":["news"]})");
  drain(plain);
  drain(followers);
  const auto whole = object("type", "event", "topic", "news", "axis", 2, "position", 1250, "speed",
                            300, "remark", "as agreed in the morning");
  const auto news =
      object("axis", 2, "position", 1250, "speed", 300, "remark", "as agreed in the morning");
  std::vector<double> cores, services, ratios;
  for (int block = 0; block < kBlocks; ++block) {
    cores.push_back(timeOf([&] { server.notifyClients(whole); }) / kFollowers);
    drain(plain);
    services.push_back(timeOf([&] { must(-service.publish("news", news), "publish"); }) /
                       kFollowers);
    drain(followers);
    ratios.push_back(services.back() / cores.back());
  }
  std::printf("%-28s core %8.0f ns   service %8.0f ns   ratio %.2f\n", "event, a follower of 1,000",
              median(cores), median(services), median(ratios));
}

void measureManyInFlight() {
  constexpr unsigned kCalls = 10000;
  Tovik::ServiceOptions options;
  options.callsPerSession = kCalls;
  options.queuedRecords = kCalls;
  options.queuedBytes = std::size_t{kCalls} * 4094;
  Tovik::Service service(nameOf("many"), admitAll, options);
  std::vector<Tovik::Request> kept;
  service.command("keep", "Waits.", {},
                  [&kept](Tovik::Request request) { kept.push_back(request); });
  Tovik::Proxy proxy(nameOf("many"));
  turnUntil([&proxy] { return proxy.isConnected(); });
  unsigned replies = 0;
  const double nanoseconds = timeOf([&] {
    for (unsigned i = 0; i < kCalls; ++i) {
      proxy.call(object("command", "keep"), kLimit,
                 [&replies](Tovik::Outcome outcome) { replies += outcome ? 1 : 0; });
    }
    turnUntil([&] { return kept.size() == kCalls; });
    std::shuffle(kept.begin(), kept.end(), std::minstd_rand());
    for (auto& request : kept) {
      request.reply();
    }
    kept.clear();
    turnUntil([&] { return replies == kCalls; });
  });
  std::printf("%-28s %u calls in flight at once: %.0f ms, all answered\n", "many calls", kCalls,
              nanoseconds / 1e6);
}

void measureSession() {
  constexpr unsigned kSessions = 1000;
  Tovik::Service service(nameOf("idle"), admitAll);
  service.topic("news", {"News."});
  const char* const subscription = R"({"command":"subscribe","topics":["news"]})";
  auto first = connectMany(nameOf("idle"), 10, subscription);
  const auto before = ::mallinfo2().uordblks;
  const auto rest = connectMany(nameOf("idle"), kSessions, subscription);
  const auto after = ::mallinfo2().uordblks;
  std::printf("%-28s %.0f bytes of heap, following one topic\n", "idle session",
              static_cast<double>(after - before - rest.capacity() * sizeof(int)) / kSessions);
}

}  // namespace

}  // namespace Bench

int main() {
  try {
    std::signal(SIGPIPE, SIG_IGN);
    Bench::startServer();
    Bench::measureSession();
    Bench::compareCalls();
    Bench::compareEvents();
    Bench::measureManyInFlight();
    return 0;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
}
