// What a foreign loop costs: round trips of a blocking client to a server in each loop, compared
// with one in the library's own. Each server is a process; rounds of calls go to one after the
// other, so that whatever else the machine does meets all of them alike.
//
//     [taskset -c 0] adapter_cost [ROUNDS [CALLS]]

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Api/Json/Client.h"
#include "Api/Json/Server.h"
#include "Kelvo/Adapters/Poll.h"
#include "Kelvo/Platform/EventLoop.h"
#ifdef TOVIK_HOST_SD_EVENT
#include "Kelvo/Adapters/SdEvent.h"
#endif
#ifdef TOVIK_HOST_GLIB
#include "Kelvo/Adapters/GLib.h"
#endif
#ifdef TOVIK_HOST_UV
#include "Kelvo/Adapters/Uv.h"
#endif
#ifdef TOVIK_HOST_ASIO
#include "Kelvo/Adapters/Asio.h"
#endif
#ifdef TOVIK_HOST_QT
#include "Kelvo/Adapters/QtCore.h"
#endif

namespace {

using Clock = std::chrono::steady_clock;

struct Loop {
  const char* title;
  void (*run)();
};

const Loop kLoops[] = {
    {"own", [] { Kelvo::Platform::EventLoop::current().run(); }},
    {"poll",
     [] {
       for (Kelvo::Adapters::Poll adapter;;) {
         pollfd entry = adapter.entry();
         poll(&entry, 1, -1);
         adapter.dispatch(entry);
       }
     }},
#ifdef TOVIK_HOST_SD_EVENT
    {"sd-event",
     [] {
       sd_event* host = nullptr;
       sd_event_new(&host);
       Kelvo::Adapters::SdEvent(host).run();
     }},
#endif
#ifdef TOVIK_HOST_GLIB
    {"glib", [] { Kelvo::Adapters::GLib(g_main_loop_new(nullptr, FALSE)).run(); }},
#endif
#ifdef TOVIK_HOST_UV
    {"uv", [] { Kelvo::Adapters::Uv(uv_default_loop()).run(); }},
#endif
#ifdef TOVIK_HOST_ASIO
    {"asio",
     [] {
       asio::io_context host(1);
       const Kelvo::Adapters::Asio adapter(host);
       host.run();
     }},
#endif
#ifdef TOVIK_HOST_QT
    {"qt",
     [] {
       int count = 1;
       char name[] = "cost";
       char* arguments[] = {name, nullptr};
       const QCoreApplication host(count, arguments);
       Kelvo::Adapters::QtCore().run();
     }},
#endif
    {"own again", kLoops[0].run},  // how far two of the same are apart
};

/// A server's process and the client that measures it.
struct Contestant {
  const char* title;
  std::string name;
  pid_t server;
  std::unique_ptr<Tovik::Client> client = nullptr;
  std::vector<double> microseconds = {};  // of one round trip, round by round
};

/// Serves in a process that ends with this one.
Contestant started(const Loop& loop) {
  Contestant made{loop.title, "cost-" + std::to_string(getpid()) + "-" + loop.title, fork()};
  if (made.server == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const Tovik::Server server(
        made.name, [](Tovik::Connection& client, const Tovik::Message&) { client.acknowledge(0); },
        [](int, unsigned uid, unsigned) { return uid == geteuid(); });
    loop.run();
    std::_Exit(1);  // no loop ends by itself
  }
  return made;
}

void connect(Contestant& contestant) {
  for (const auto deadline = Clock::now() + std::chrono::seconds(10); !contestant.client;) {
    try {
      contestant.client = std::make_unique<Tovik::Client>(contestant.name);
    } catch (const Tovik::SocketException&) {
      if (Clock::now() > deadline) {
        throw;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
}

void measure(Contestant& contestant, int calls) {
  Tovik::Message msg;
  msg.Parse(R"({"command":"set","level":3})");
  const auto start = Clock::now();
  for (int i = 0; i < calls; ++i) {
    if (contestant.client->sendMsg(msg, true) != 0) {
      throw std::runtime_error(contestant.name + ": no reply");
    }
  }
  const std::chrono::duration<double, std::micro> took = Clock::now() - start;
  contestant.microseconds.push_back(took.count() / calls);
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void report(const Contestant& contestant, const Contestant& own) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < own.microseconds.size(); ++i) {
    ratios.push_back(contestant.microseconds[i] / own.microseconds[i]);
  }
  std::printf("%-9s %8.2f us %+7.1f %%\n", contestant.title, median(contestant.microseconds),
              (median(ratios) - 1) * 100);
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;
  const int calls = argc > 2 ? std::max(1, std::atoi(argv[2])) : 200;
  std::vector<Contestant> all;
  for (const auto& loop : kLoops) {
    all.push_back(started(loop));
  }
  for (auto& each : all) {
    connect(each);
    measure(each, calls);
    each.microseconds.clear();  // that was the warm-up
  }
  for (int round = 0; round < rounds; ++round) {
    for (auto& each : all) {
      measure(each, calls);
    }
  }
  for (const auto& each : all) {
    report(each, all.front());
  }
}
