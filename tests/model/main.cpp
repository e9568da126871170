// Random conversations between a server and nine clients of all kinds, on the real library and on a
// model of it, step by step. Time is virtual. A run is repeated by giving its seed again.
//
//     model_test [--seed N] [--steps N]

#include <sys/resource.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <random>
#include <string>

#include "tests/model/World.h"

namespace model {

namespace {

constexpr unsigned long kStepsPerWorld = 2000;
constexpr std::size_t kMostUnread = 60;  // what any socket has room for
constexpr std::size_t kMostWaiting = 2;  // and three asynchronous clients, within the backlog of 5

class Driver {
 public:
  explicit Driver(unsigned long seed) : random_(seed) {}

  /// One world from start to finish.
  void run(unsigned long steps) {
    recent_.clear();
    World world;
    world_ = &world;
    world.startServer();
    for (unsigned long i = 0; i < steps; ++i) {
      step();
      if (chance(40) || tooMuchUnderWay()) {
        note("settle");
        world.settle();
      }
    }
    note("finish");
    world.finish();
  }

  const std::deque<std::string>& recent() const { return recent_; }

 private:
  unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }
  bool chance(unsigned percent) { return below(100) < percent; }
  const Model& model() const { return world_->model(); }

  void note(const std::string& step) {
    recent_.push_back(step);
    if (recent_.size() > 60) {
      recent_.pop_front();
    }
  }

  bool tooMuchUnderWay() const {
    if (model().waiting() > kMostWaiting) {
      return true;
    }
    for (const Client& client : model().clients) {
      if (client.link && client.link->toServer.size() + client.queue.size() > kMostUnread) {
        return true;
      }
    }
    return false;
  }

  void step() {
    const unsigned place = below(kClients);
    const bool isAsync = place >= kFirstAsync;
    const Client& client = model().clients[place];
    const std::string who = " " + std::to_string(place);
    const unsigned what = below(100);
    if (what < 4) {
      serverStep();
    } else if (what < 12) {
      notifyStep();
    } else if (what < 16) {
      const Time by = std::chrono::milliseconds(below(3000));
      note("advance " + std::to_string(by.count() / 1000000) + " ms");
      world_->advance(by);
    } else if (isAsync && !client.exists) {
      note("create" + who);
      world_->create(place, chance(50), 1 + below(3));
    } else if (isAsync) {
      asyncStep(place, who, what);
    } else if (!client.link) {
      note("connect" + who);
      world_->connect(place);
    } else if (what < 20) {
      note("close" + who);
      world_->close(place);
    } else if (what < 28) {
      note((client.reading ? "stop reading" : "read again") + who);
      world_->setReading(place, !client.reading);
    } else {
      sendStep(place, who);
    }
  }

  void serverStep() {
    if (!model().up) {
      note("start");
      world_->startServer();
    } else if (chance(50)) {
      note("stop");
      world_->stopServer();
    } else if (chance(50)) {
      const bool yes = !model().admits;
      note(yes ? "admit" : "refuse");
      world_->admit(yes);
    } else {
      note("free the dead");
      world_->freeDead();
    }
  }

  void notifyStep() {
    const unsigned count = chance(3) ? 100 + below(400) : 1 + below(3);
    note("notify " + std::to_string(count));
    if (model().up) {
      world_->notify(count);
    }
    if (count > kMostUnread) {
      note("settle");  // how much of it a server that stops now would lose is the kernel's affair
      world_->settle();
    }
  }

  void asyncStep(unsigned place, const std::string& who, unsigned what) {
    if (what < 18) {
      note("destroy" + who);
      world_->destroy(place);
    } else if (what < 22) {
      note("drop" + who);
      world_->drop(place);
    } else if (what < 26 && model().waiting() < kMostWaiting) {
      note("retry" + who);
      world_->retry(place);
    } else {
      sendStep(place, who);
    }
  }

  void sendStep(unsigned place, const std::string& who) {
    constexpr Kind kKinds[] = {Kind::kCall, Kind::kCall, Kind::kEcho,      Kind::kNote,
                               Kind::kOn,   Kind::kOff,  Kind::kSwallowed, Kind::kNotJson};
    const unsigned kinds = place < kRawClients ? 8 : 7;  // the library sends JSON only
    const Kind kind = kKinds[below(kinds)];
    note("send" + who + " " + record(kind, 0, place));
    world_->send(place, kind);
  }

  std::mt19937_64 random_;
  World* world_ = nullptr;
  std::deque<std::string> recent_;
};

double secondsSince(const timespec& start) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  return static_cast<double>(now.tv_sec - start.tv_sec) +
         static_cast<double>(now.tv_nsec - start.tv_nsec) * 1e-9;
}

int runAll(unsigned long seed, unsigned long steps) {
  timespec start{};
  clock_gettime(CLOCK_MONOTONIC_RAW, &start);
  std::printf("model_test --seed %lu --steps %lu\n", seed, steps);
  std::fflush(stdout);
  // Each world has a seed of its own that follows from its place, so that it can be run alone.
  for (unsigned long done = 0; done < steps; done += kStepsPerWorld) {
    Driver driver(seed + done);
    try {
      driver.run(std::min(kStepsPerWorld, steps - done));
    } catch (const Difference& difference) {
      for (const std::string& step : driver.recent()) {
        std::printf("  %s\n", step.c_str());
      }
      std::printf("DIFFERENCE: %s\nRepeat with: model_test --seed %lu --steps %lu\n",
                  difference.what.c_str(), seed + done, std::min(kStepsPerWorld, steps - done));
      return 1;
    }
  }
  const double seconds = secondsSince(start);
  std::printf("%lu steps in %.1f s, %.0f steps/s: no difference\n", steps, seconds,
              static_cast<double>(steps) / seconds);
  return 0;
}

}  // namespace

}  // namespace model

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  unsigned long seed = std::random_device()();
  unsigned long steps = 10000;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--seed") == 0) {
      seed = std::strtoul(argv[i + 1], nullptr, 10);
    } else if (std::strcmp(argv[i], "--steps") == 0) {
      steps = std::strtoul(argv[i + 1], nullptr, 10);
    }
  }
  return model::runAll(seed, steps);
}
