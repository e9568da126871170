// What a foreign loop costs: round trips of a blocking client to a server in each loop, compared
// with one in the library's own. Each server is a process; rounds of calls go to one after the
// other, so that whatever else the machine does meets all of them alike.
//
//     adapter_cost [ROUNDS [CALLS [PINNED]]]     PINNED: 1 puts all on one processor, 2 the client
//                                                on one and the servers on another

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Api/Json/Client.h"
#include "Api/Json/Server.h"
#include "Kelvo/Platform/EventLoop.h"
#include "tests/adapters/PollHost.h"
#ifdef TOVIK_HOST_SD_EVENT
#include "tests/adapters/SdEventHost.h"
#endif
#ifdef TOVIK_HOST_GLIB
#include "tests/adapters/GLibHost.h"
#endif
#ifdef TOVIK_HOST_UV
#include "tests/adapters/UvHost.h"
#endif
#ifdef TOVIK_HOST_ASIO
#include "tests/adapters/AsioHost.h"
#endif
#ifdef TOVIK_HOST_QT
#include "tests/adapters/QtHost.h"
#endif

namespace {

using Clock = std::chrono::steady_clock;

class OwnLoop {
 public:
  void attach() {}
  void run() { Kelvo::Platform::EventLoop::current().run(); }
  void stop() { Kelvo::Platform::EventLoop::current().stop(); }
};

void pinTo(unsigned processor) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(processor % std::thread::hardware_concurrency(), &set);
  sched_setaffinity(0, sizeof set, &set);
}

template <class Host>
void serve(const std::string& name) {
  Host host;
  host.attach();
  const Tovik::Server server(
      name,
      [&](Tovik::Connection& client, const Tovik::Message& msg) {
        client.acknowledge(0);
        if (msg.HasMember("stop")) {
          host.stop();
        }
      },
      [](int, unsigned uid, unsigned) { return uid == geteuid(); });
  host.run();
}

Tovik::Message message(const char* text) {
  Tovik::Message msg;
  msg.Parse(text);
  return msg;
}

/// A server process and the client that measures it.
class Contestant {
 public:
  Contestant(std::string title, const std::function<void(const std::string&)>& server, int pinned)
      : title_(std::move(title)), name_("cost-" + std::to_string(getpid()) + "-" + title_) {
    server_ = fork();
    if (server_ == 0) {
      if (pinned > 0) {
        pinTo(static_cast<unsigned>(pinned) - 1);
      }
      server(name_);
      std::exit(0);
    }
  }

  void connect() {
    for (const auto deadline = Clock::now() + std::chrono::seconds(10); !client_;) {
      try {
        client_ = std::make_unique<Tovik::Client>(name_);
      } catch (const Tovik::SocketException&) {
        if (Clock::now() > deadline) {
          throw;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    }
  }

  void measure(int calls) {
    const Tovik::Message msg = message(R"({"command":"set","level":3})");
    const auto start = Clock::now();
    for (int i = 0; i < calls; ++i) {
      if (client_->sendMsg(msg, true) != 0) {
        throw std::runtime_error(title_ + ": no reply");
      }
    }
    const std::chrono::duration<double, std::micro> took = Clock::now() - start;
    microseconds.push_back(took.count() / calls);
  }

  /// False if the server has not ended as it should.
  bool stop() {
    client_->sendMsg(message(R"({"stop":true})"), true);
    int status = -1;
    return waitpid(server_, &status, 0) == server_ && status == 0;
  }

  const std::string& title() const { return title_; }

  std::vector<double> microseconds;  // of one round trip, round by round

 private:
  const std::string title_;
  const std::string name_;
  pid_t server_ = -1;
  std::unique_ptr<Tovik::Client> client_;
};

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void report(const Contestant& contestant, const Contestant& own) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < own.microseconds.size(); ++i) {
    ratios.push_back(contestant.microseconds[i] / own.microseconds[i]);
  }
  std::printf("%-9s %8.2f us %+7.1f %%\n", contestant.title().c_str(),
              median(contestant.microseconds), (median(ratios) - 1) * 100);
}

std::vector<Contestant> contestants(int pinned) {
  std::vector<std::pair<std::string, void (*)(const std::string&)>> servers = {
      {"own", &serve<OwnLoop>},
      {"poll", &serve<PollHost>},
#ifdef TOVIK_HOST_SD_EVENT
      {"sd-event", &serve<SdEventHost>},
#endif
#ifdef TOVIK_HOST_GLIB
      {"glib", &serve<GLibHost>},
#endif
#ifdef TOVIK_HOST_UV
      {"uv", &serve<UvHost>},
#endif
#ifdef TOVIK_HOST_ASIO
      {"asio", &serve<AsioHost>},
#endif
#ifdef TOVIK_HOST_QT
      {"qt", &serve<QtHost>},
#endif
      {"own again", &serve<OwnLoop>},  // how far two of the same are apart
  };
  std::vector<Contestant> made;
  made.reserve(servers.size());
  for (const auto& [title, server] : servers) {
    made.emplace_back(title, server, pinned);
  }
  return made;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;
  const int calls = argc > 2 ? std::max(1, std::atoi(argv[2])) : 200;
  const int pinned = argc > 3 ? std::atoi(argv[3]) : 0;
  auto all = contestants(pinned);
  if (pinned > 0) {
    pinTo(0);
  }
  for (auto& each : all) {
    each.connect();
    each.measure(calls);
    each.microseconds.clear();  // that was the warm-up
  }
  for (int round = 0; round < rounds; ++round) {
    for (auto& each : all) {
      each.measure(calls);
    }
  }
  bool ended = true;
  for (auto& each : all) {
    report(each, all.front());
    ended = each.stop() && ended;
  }
  return ended ? 0 : 1;
}
