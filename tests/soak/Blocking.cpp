// Blocking clients: many that connect at once, each on a thread of its own, and one that sends
// without a pause.

#include <pthread.h>

#include <algorithm>
#include <optional>
#include <thread>
#include <vector>

#include "Api/Json/Client.h"
#include "tests/soak/Child.h"

namespace {

class Blocking {
 public:
  explicit Blocking(const Tovik::Message& setup) : name_(of<std::string>(setup, "name")) {}

 private:
  struct Call {
    int status = -1;                // -1: refused, or lost its server
    std::uint64_t nanoseconds = 0;  // from before the connect to the answer
  };

  void burst(unsigned clients) {
    std::vector<Call> calls(clients);
    std::vector<std::thread> threads;
    pthread_barrier_init(&start_, nullptr, clients);
    for (unsigned i = 0; i < clients; ++i) {
      threads.emplace_back([this, i, &call = calls[i]] { connectAndCall(i, call); });
    }
    unsigned answered = 0, wrong = 0, failed = 0;
    std::uint64_t longest = 0;
    for (unsigned i = 0; i < clients; ++i) {
      threads[i].join();
      const int status = calls[i].status;
      ++(status < 0 ? failed : static_cast<unsigned>(status) == i ? answered : wrong);
      longest = std::max(longest, calls[i].nanoseconds);
    }
    pthread_barrier_destroy(&start_);
    answer(
        Tovik::object("answered", answered, "wrong", wrong, "failed", failed, "longest", longest));
  }

  void connectAndCall(unsigned number, Call& call) {
    pthread_barrier_wait(&start_);
    const auto start = nowNanoseconds();
    try {
      call.status = Tovik::Client(name_).sendMsg(Tovik::object("call", number), true);
    } catch (const Tovik::SocketException&) {
    }
    call.nanoseconds = nowNanoseconds() - start;
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
