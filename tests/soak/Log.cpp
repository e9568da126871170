#include "tests/soak/Log.h"

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <new>
#include <stdexcept>

#include "Kelvo/Platform/Debug.h"

namespace Soak {

namespace {

struct Shared {
  std::atomic<std::uint64_t> lines{0};
  std::atomic<std::uint64_t> strange{0};
};

Shared* shared = nullptr;
std::atomic<unsigned> enabledLevels{0};

struct Expected {
  int level;
  const char* text;  // how it begins
};

constexpr Expected kExpected[] = {
    {0, "Server(): socket fd = "},
    // What a peer leaves behind that was killed, or that has refused.
    {0, "AsyncSender::asynRead(): read failed -> Connection reset by peer"},
    {0, "AsyncSender::flushQueue(): write error Connection reset by peer"},
    {0, "Client::sendMsg(): Failed to write() Broken pipe"},
    {0, "Client::sendMsg(): Failed to write() Connection reset by peer"},
    {1, "AsyncSender::terminateConnection(): fd = "},
    {1, "Connection::readFdEvent(): Client (fd = "},
    {1, "Server::readFdEvent(): New connection, fd = "},
    {1, "Server::validateConnection( "},
    {2, "AsyncSender::flushQueue(), queue size = "},
    {2, "Connection::readFdEvent(): fd = "},
    {3, "AsyncClient::readFdEvent(): msg = '{"},
    {3, "AsyncClient::timeout()"},
    {3, "AsyncSender::asyncSendMSg() -> {"},
    {3, "msg = '{"},
};

bool isExpected(const Kelvo::Platform::DebugRecord& record) {
  const bool enabled = ((enabledLevels >> record.level) & 1U) != 0;
  return enabled && std::any_of(std::begin(kExpected), std::end(kExpected), [&](const auto& known) {
           return record.level == known.level && record.text.rfind(known.text, 0) == 0;
         });
}

void check(const Kelvo::Platform::DebugRecord& record) {
  ++shared->lines;
  if (isExpected(record)) {
    return;
  }
  if (++shared->strange <= 10) {
    std::fprintf(stderr, "soak: a strange line of level %d: %s\n", record.level,
                 record.text.c_str());
  }
}

}  // namespace

void shareLogFigures() {
  void* const memory =
      ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    throw std::bad_alloc();
  }
  shared = new (memory) Shared;
}

void watchLog(unsigned levels) {
  Kelvo::Platform::setDebugSink("Tovik", check);
  setLogLevels(levels);
}

void setLogLevels(unsigned levels) {
  enabledLevels = levels;
  Kelvo::Platform::setDebugLevels("Tovik", levels);
}

LogFigures logFigures() {
  return {shared->lines, shared->strange};
}

}  // namespace Soak
