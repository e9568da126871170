#include "tests/faults/Scenarios.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <optional>

#include "Api/Json/Client.h"
#include "Api/Json/Server.h"
#include "Kelvo/Exception.h"
#include "tests/faults/Injection.h"
#include "tests/support/Support.h"

using namespace std::chrono_literals;

namespace Faults {

constexpr int kIdleTurns = 12;  // of 2 ms each

bool Run::turnUntil(const std::function<bool()>& condition) {
  for (int idle = 0; idle < kIdleTurns;) {
    if (condition()) {
      return true;
    }
    try {
      idle = Kelvo::Platform::EventLoop::current().runOnce(2ms) ? 0 : idle + 1;
    } catch (...) {
      noteException();
    }
  }
  return false;
}

void Run::noteException() {
  try {
    throw;
  } catch (const Kelvo::Exception& exception) {
    exceptions_.add(exception.name(), exception.what());
  } catch (const std::exception& exception) {
    exceptions_.add(exception.what());
  }
}

Notes::Notes() : lines_(32) {
  for (auto& line : lines_) {
    line.reserve(300);
  }
}

void Notes::add(std::string_view head, std::string_view tail) {
  auto& line = lines_.at(used_++);
  line.assign(head.substr(0, 100));
  if (!tail.empty()) {
    line.append(": ").append(tail.substr(0, 190));
  }
}

std::vector<std::string> Notes::lines() const {
  return {lines_.begin(), lines_.begin() + static_cast<std::ptrdiff_t>(used_)};
}

namespace {

constexpr const char* kSwitchOn = R"({"command":"set","notification":true})";
constexpr const char* kSubscribed = R"({"type":"reply","status":0})";

/// Built by the scenario, not by the library.
Tovik::Message message(const std::string& text) {
  const Injection::Suspended own;
  return parsed(text);
}

bool sameUser(int /*pid*/, unsigned uid, unsigned /*gid*/) {
  return uid == geteuid();
}

/// A server that acknowledges every message with 7.
std::unique_ptr<Tovik::Server> makeServer(const Run& run) {
  return std::make_unique<Tovik::Server>(
      run.name(), [](Tovik::Connection& client, const Tovik::Message&) { client.acknowledge(7); },
      sameUser);
}

/// An asynchronous client that subscribes and collects what it gets.
class Subscriber : public Tovik::AsyncClient {
 public:
  explicit Subscriber(const Run& run)
      : AsyncClient(
            run.name(),
            [this](auto&, const Tovik::Message& msg) {
              received_.emplace_back(Tovik::Message::toStr(msg, false).data());
            },
            [](Tovik::AsyncClient& self) { self.asyncSendMsg(message(kSwitchOn)); }, 0) {}

  bool got(std::string_view text) const { return !received_.empty() && received_.back() == text; }
  void forget() { received_.clear(); }

 private:
  std::vector<std::string> received_;
};

/// Reads what has come, without the library.
class RawPeer {
 public:
  explicit RawPeer(const Run& run) : fd_(rawConnect(run.name())) {}

  void say(std::string_view text) const {
    ::send(fd_.get(), text.data(), text.size(), MSG_NOSIGNAL);
  }
  bool hears(std::string_view text) const {
    const Injection::Suspended own;
    std::array<char, 8192> record{};
    const auto size = ::recv(fd_.get(), record.data(), record.size(), MSG_DONTWAIT);
    return size > 0 && std::string_view(record.data(), static_cast<std::size_t>(size)) == text;
  }
  void leave() { fd_.reset(); }

 private:
  Fd fd_;
};

bool serve(Run& run) {
  const auto server = makeServer(run);
  RawPeer peer(run);
  peer.say(R"({"do":"it"})");
  const bool answered = run.turnUntil([&] { return peer.hears(R"({"type":"reply","status":7})"); });
  peer.say(R"({"do":"it"})");
  const bool again = run.turnUntil([&] { return peer.hears(R"({"type":"reply","status":7})"); });
  peer.leave();
  run.turnUntil([] { return false; });
  server->freeDeadConnections();
  return answered && again;
}

std::set<int> descriptors() {
  const Injection::Suspended own;
  return openDescriptors();
}

/// Lets no wait last: a connection that nobody serves would block the client for ever.
void limitWaits(const std::set<int>& descriptorsBefore) {
  const Injection::Suspended own;
  const timeval limit{0, 50000};
  for (const int fd : openDescriptors()) {
    if (descriptorsBefore.count(fd) == 0) {
      ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
  }
}

bool call(Run& run) {
  const auto server = makeServer(run);
  const auto before = descriptors();
  const Tovik::Client client(run.name());
  limitWaits(before);
  if (client.sendMsg(message(R"({"do":"it"})"), false) != 0) {
    return false;
  }
  run.turnUntil([] { return false; });
  return client.waitAck() == 7;
}

/// A notification that is under way when a connection is lost is not sent again; the next ones
/// come.
bool isNotified(Run& run, Tovik::Server& server, const Subscriber& client) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    server.notifyClients(message(R"({"n":1})"));
    if (run.turnUntil([&] { return client.got(R"({"n":1})"); })) {
      return true;
    }
  }
  return false;
}

bool subscribe(Run& run) {
  const auto server = makeServer(run);
  const Subscriber client(run);
  if (!run.turnUntil([&] { return client.got(kSubscribed); })) {
    return false;
  }
  return isNotified(run, *server, client);
}

/// More than the socket takes, so that a backlog builds up twice and is worked off.
bool broadcast(Run& run) {
  constexpr int kMessages = 60;
  const auto server = makeServer(run);
  const RawPeer peer(run);
  peer.say(kSwitchOn);
  if (!run.turnUntil([&] { return peer.hears(kSubscribed); })) {
    return false;
  }
  const auto text = [](int i) {
    return R"({"n":)" + std::to_string(i) + R"(,"pad":")" + std::string(4000, 'x') + R"("})";
  };
  for (int i = 0; i < kMessages; ++i) {
    server->notifyClients(message(text(i)));
  }
  int next = 0;
  return run.turnUntil([&] {
    while (next < kMessages && peer.hears(text(next))) {
      ++next;
    }
    return next == kMessages;
  });
}

bool reconnect(Run& run) {
  auto server = makeServer(run);
  Subscriber client(run);
  if (!run.turnUntil([&] { return client.got(kSubscribed); })) {
    return false;
  }
  server.reset();
  client.forget();
  run.turnUntil([&] { return !client.isAttached(); });
  server = makeServer(run);
  if (!run.turnUntil([&] { return client.got(kSubscribed); })) {
    return false;
  }
  return isNotified(run, *server, client);
}

}  // namespace

const std::vector<Scenario>& scenarios() {
  static const std::vector<Scenario> all = {{"serve", serve, false, false},
                                            {"call", call, false, true},
                                            {"subscribe", subscribe, true, false},
                                            {"broadcast", broadcast, false, false},
                                            {"reconnect", reconnect, true, false}};
  return all;
}

}  // namespace Faults
