// One process of a scenario: `soak ROLE SETUP`, the latter in JSON. tests/soak/soak.py runs them.

#include "tests/soak/Child.h"

#include <malloc.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "Kelvo/Platform/Debug.h"

namespace {

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

void check(const Kelvo::Platform::DebugRecord& record) {
  const bool enabled = ((enabledLevels >> record.level) & 1U) != 0;
  if (!enabled || std::none_of(std::begin(kExpected), std::end(kExpected), [&](const auto& known) {
        return record.level == known.level && record.text.rfind(known.text, 0) == 0;
      })) {
    std::fprintf(stderr, "level %d: %s\n", record.level, record.text.c_str());
  }
}

/// What nobody expects goes to standard error; these levels are on.
void watchLog(unsigned levels) {
  enabledLevels = levels;
  Kelvo::Platform::setDebugSink("Tovik", check);
  Kelvo::Platform::setDebugLevels("Tovik", levels);
}

}  // namespace

void answer(const Tovik::Message& message) {
  const auto text = Tovik::Message::toStr(message, false);
  if (::send(STDIN_FILENO, text.data(), text.size(), MSG_NOSIGNAL) < 0) {
    std::_Exit(0);
  }
}

Commands::Commands(Verbs verbs)
    : verbs_(std::move(verbs)), control_(Kelvo::Platform::getFdControl(this)) {
  verbs_["levels"] = [](auto levels, auto) { watchLog(static_cast<unsigned>(levels)); };
  control_->attach(STDIN_FILENO);
}

void Commands::readFdEvent(int fd) {
  char text[100];
  const auto size = ::recv(fd, text, sizeof text, 0);
  if (size <= 0) {
    std::_Exit(0);  // the driver has gone
  }
  std::istringstream words(std::string(text, static_cast<std::size_t>(size)));
  std::string verb;
  std::uint64_t number = 0;
  std::uint64_t more = 0;
  words >> verb >> number >> more;
  verbs_.at(verb)(number, more);
}

std::uint64_t heapInUse() {
  ::malloc_trim(0);
  const auto heap = ::mallinfo2();
  return heap.uordblks + heap.hblkhd;
}

std::uint64_t nowNanoseconds() {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                        std::chrono::steady_clock::now().time_since_epoch())
                                        .count());
}

int main(int argc, char** argv) {
  const std::map<std::string, void (*)(const Tovik::Message&)> roles = {
      {"server", runServer},
      {"clients", runClients},
      {"blocking", runBlockingClients},
      {"service", runService},
      {"proxies", runProxies}};
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  std::signal(SIGPIPE, SIG_IGN);
  watchLog(1);
  Kelvo::Platform::setDebugLevels("TovikService", 0);  // which tells of each loss
  try {
    Tovik::Message setup;
    if (argc != 3 || setup.Parse(argv[2]).HasParseError()) {
      throw std::runtime_error("a role and its setup are wanted");
    }
    roles.at(argv[1])(setup);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argc > 1 ? argv[1] : argv[0], error.what());
  }
  return 1;
}
