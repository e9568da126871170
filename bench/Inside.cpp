// What happens inside one process, without a switch to another: the pieces that a message's path is
// made of.

#define RAPIDJSON_ASSERT(condition) static_cast<void>(condition)

#include <benchmark/benchmark.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#define TOVIK_SOURCE_PATH "bench/Inside"
#include "Api/Json/Async.h"
#include "Api/Json/detail/Debug.h"
#include "Kelvo/Platform/EventLoop.h"
#include "bench/support/Work.h"

namespace {

using Kelvo::Platform::EventLoop;

Tovik::Message message(const char* text) {
  Tovik::Message message;
  Bench::parse(message, text);
  return message;
}

void disabledLogStatement(benchmark::State& state) {
  int fd = 5;
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(fd);
    TOVIK_LOG(2, "Connection::readFdEvent(): fd = " << fd);
  }
}
BENCHMARK(disabledLogStatement);

void emptyStatement(benchmark::State& state) {
  int fd = 5;
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(fd);
  }
}
BENCHMARK(emptyStatement);

void parseRequest(benchmark::State& state) {
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(message(Bench::kRequest));
  }
}
BENCHMARK(parseRequest);

void serialiseRequest(benchmark::State& state) {
  const auto request = message(Bench::kRequest);
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(Tovik::Message::toStr(request, false));
  }
}
BENCHMARK(serialiseRequest);

void serialiseRequestByHand(benchmark::State& state) {
  const auto request = message(Bench::kRequest);
  for ([[maybe_unused]] auto _ : state) {
    rapidjson::StringBuffer text;
    Bench::serialise(request, text);
    benchmark::DoNotOptimize(text.GetString());
  }
}
BENCHMARK(serialiseRequestByHand);

/// Two connected sequenced-packet sockets.
struct Pair {
  Pair() { socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends); }
  int ends[2] = {-1, -1};
};

class Sender : public Tovik::AsyncSender {
 public:
  explicit Sender(int fd) { setFd(fd); }
  void readFdEvent(int /*fd*/) override {
    Kelvo::String text;
    asyncRead(text);
  }
};

/// Sent through the queue, and read away at the other end.
void asyncSend(benchmark::State& state) {
  const Pair pair;
  Sender sender(pair.ends[0]);
  const auto request = message(Bench::kRequest);
  char buffer[4096];
  for ([[maybe_unused]] auto _ : state) {
    sender.asyncSendMsg(request);
    benchmark::DoNotOptimize(::read(pair.ends[1], buffer, sizeof buffer));
  }
  ::close(pair.ends[1]);
}
BENCHMARK(asyncSend);

/// The same by hand: serialised and written.
void sendByHand(benchmark::State& state) {
  const Pair pair;
  const auto request = message(Bench::kRequest);
  char buffer[4096];
  for ([[maybe_unused]] auto _ : state) {
    rapidjson::StringBuffer text;
    Bench::serialise(request, text);
    benchmark::DoNotOptimize(::write(pair.ends[0], text.GetString(), text.GetSize()));
    benchmark::DoNotOptimize(::read(pair.ends[1], buffer, sizeof buffer));
  }
  ::close(pair.ends[0]);
  ::close(pair.ends[1]);
}
BENCHMARK(sendByHand);

class Ready : public Kelvo::Platform::FdEventHandler {
 public:
  void readFdEvent(int /*fd*/) override { ++events; }
  int events = 0;
};

/// One turn of the loop with one descriptor ready.
void turnOfTheLoop(benchmark::State& state) {
  const int fd = ::eventfd(1, 0);  // stays readable
  Ready ready;
  const auto control = Kelvo::Platform::getFdControl(&ready);
  control->attach(fd);
  for ([[maybe_unused]] auto _ : state) {
    EventLoop::current().dispatch();
  }
  control->detach();
  ::close(fd);
}
BENCHMARK(turnOfTheLoop);

}  // namespace

BENCHMARK_MAIN();
