#include "tests/soak/Blocking.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "Api/Json/Client.h"
#include "tests/soak/Log.h"
#include "tests/soak/Process.h"
#include "tests/soak/Times.h"

namespace Soak {

namespace {

Tovik::Message message(const char* key, unsigned value) {
  Tovik::Message message;
  message.SetObject();
  message.AddMember(rapidjson::StringRef(key), value, message.GetAllocator());
  return message;
}

class Burst {
 public:
  explicit Burst(const std::string& name, unsigned clients) : name_(name) {
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
  }

  BurstFigures figures() const { return {answered_, wrong_, failed_, longest_}; }

 private:
  void connectAndCall(unsigned number) {
    pthread_barrier_wait(&start_);
    const auto start = nowNanoseconds();
    try {
      const Tovik::Client client(name_.c_str());
      const int status = client.sendMsg(message("call", number), true);
      if (status < 0) {
        ++failed_;
        return;
      }
      ++(static_cast<unsigned>(status) == number ? answered_ : wrong_);
    } catch (const Tovik::SocketException&) {
      ++failed_;
    }
    const auto duration = nowNanoseconds() - start;
    auto longest = longest_.load();
    while (longest < duration && !longest_.compare_exchange_weak(longest, duration)) {
    }
  }

  const std::string& name_;
  pthread_barrier_t start_{};
  std::atomic<std::uint64_t> answered_{0};
  std::atomic<std::uint64_t> wrong_{0};
  std::atomic<std::uint64_t> failed_{0};
  std::atomic<std::uint64_t> longest_{0};
};

template <class Answer>
void answer(int commands, const Answer& answer) {
  Commands::send(commands, &answer, sizeof answer);
}

}  // namespace

void runBursts(const std::string& name, int commands) {
  watchLog(1);
  answer(commands, Done{});
  while (true) {
    const Command command = Commands::receive(commands);
    answer(commands, Burst(name, static_cast<unsigned>(command.number)).figures());
  }
}

void runFlood(const std::string& name, int commands) {
  watchLog(1);
  const Tovik::Client client(name.c_str());
  answer(commands, Done{});
  std::uint64_t sent = 0;
  while (true) {
    const Command command = Commands::receive(commands);
    const auto end = nowNanoseconds() + command.number * 1000000;
    while (nowNanoseconds() < end) {
      sent += client.sendMsg(message("note", static_cast<unsigned>(sent & 0xffff)), false) == 0;
    }
    answer(commands, sent);
  }
}

}  // namespace Soak
