// Blocking clients: many that connect at once, each on a thread of its own, and one that sends
// without a pause.

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <optional>
#include <thread>
#include <vector>

#include "Api/Json/Client.h"
#include "tests/soak/Child.h"

namespace Soak {

namespace {

class Blocking {
 public:
  explicit Blocking(const Tovik::Message& setup) : name_(of<std::string>(setup, "name")) {}

 private:
  void burst(unsigned clients) {
    answered_ = wrong_ = failed_ = longest_ = 0;
    pthread_barrier_init(&start_, nullptr, clients);
    std::vector<std::thread> threads;
    threads.reserve(clients);
    for (unsigned i = 0; i < clients; ++i) {
      threads.emplace_back([this, i] { connectAndCall(i); });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    pthread_barrier_destroy(&start_);
    answer(Tovik::object("answered", answered_.load(), "wrong", wrong_.load(), "failed",
                         failed_.load(), "longest", longest_.load()));
  }

  void connectAndCall(unsigned number) {
    pthread_barrier_wait(&start_);
    const auto start = nowNanoseconds();
    try {
      const int status = Tovik::Client(name_).sendMsg(Tovik::object("call", number), true);
      ++(status < 0 ? failed_ : static_cast<unsigned>(status) == number ? answered_ : wrong_);
    } catch (const Tovik::SocketException&) {
      ++failed_;
    }
    const auto duration = nowNanoseconds() - start;
    auto longest = longest_.load();
    while (longest < duration && !longest_.compare_exchange_weak(longest, duration)) {
    }
  }

  /// Over a connection that stays.
  void flood(std::uint64_t milliseconds) {
    if (!flooder_) {
      flooder_.emplace(name_);
    }
    const auto end = nowNanoseconds() + milliseconds * 1000000;
    for (unsigned sent = 0; nowNanoseconds() < end; ++sent) {
      flooder_->sendMsg(Tovik::object("note", sent & 0xffff), false);
    }
    answer();
  }

  const std::string name_;
  pthread_barrier_t start_{};
  std::atomic<std::uint64_t> answered_{0}, wrong_{0};
  std::atomic<std::uint64_t> failed_{0};   // refused, or lost their server
  std::atomic<std::uint64_t> longest_{0};  // nanoseconds from before the connect to the answer
  std::optional<Tovik::Client> flooder_;
  const Commands commands_{{
      {"burst", [this](auto clients, auto) { burst(static_cast<unsigned>(clients)); }},
      {"flood", [this](auto milliseconds, auto) { flood(milliseconds); }},
  }};
};

}  // namespace

void runBlockingClients(const Tovik::Message& setup) {
  play<Blocking>(setup);
}

}  // namespace Soak
