// What happens inside one process, without a switch to another.

#include <benchmark/benchmark.h>
#include <sys/eventfd.h>
#include <unistd.h>

#define TOVIK_SOURCE_PATH "bench/Inside"
#include "Api/Json/detail/Debug.h"
#include "Kelvo/Platform/EventLoop.h"

namespace {

using Kelvo::Platform::EventLoop;

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
