#include "tests/faults/Scenarios.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <memory>

#include "Api/Json/Client.h"
#include "Api/Json/Server.h"
#include "Kelvo/Exception.h"

using namespace std::chrono_literals;

namespace Faults {

Run::Run() {
  exceptions.reserve(10000);
  errors.reserve(10000);
}

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
    exceptions.append(exception.name()).append(": ").append(exception.what()).append("\n");
  } catch (const std::exception& exception) {
    exceptions.append(exception.what()).append("\n");
  }
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
      run.name, [](Tovik::Connection& client, const Tovik::Message&) { client.acknowledge(7); },
      sameUser);
}

/// An asynchronous client that subscribes and collects what it gets.
class Subscriber : public Tovik::AsyncClient {
 public:
  explicit Subscriber(const Run& run)
      : AsyncClient(
            run.name,
            [this](auto&, const Tovik::Message& msg) {
              received_.emplace_back(Tovik::Message::toStr(msg, false).data());
            },
            [](Tovik::AsyncClient& self) { self.asyncSendMsg(message(kSwitchOn)); }, 0) {}

  bool got(std::string_view text) const { return !received_.empty() && received_.back() == text; }
  void forget() { received_.clear(); }

 private:
  std::vector<std::string> received_;
};

// A peer without the library.

void say(const Fd& peer, std::string_view text) {
  ::send(peer.get(), text.data(), text.size(), MSG_NOSIGNAL);
}

bool hears(const Fd& peer, std::string_view text) {
  const Injection::Suspended own;
  return rawReceiveNow(peer.get()) == text;
}

bool serve(Run& run) {
  const auto server = makeServer(run);
  Fd peer = rawConnect(run.name);
  say(peer, R"({"do":"it"})");
  const auto isAnswered = [&] { return hears(peer, R"({"type":"reply","status":7})"); };
  const bool answered = run.turnUntil(isAnswered);
  say(peer, R"({"do":"it"})");
  const bool again = run.turnUntil(isAnswered);
  peer.reset();
  run.turnUntil([] { return false; });
  server->freeDeadConnections();
  return answered && again;
}

bool call(Run& run) {
  const auto server = makeServer(run);
  const int itsSocket = nextDescriptor();
  const Tovik::Client client(run.name);
  const timeval limit{0, 50000};  // a connection that nobody serves would block it for ever
  ::setsockopt(itsSocket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
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
  const Fd peer = rawConnect(run.name);
  say(peer, kSwitchOn);
  if (!run.turnUntil([&] { return hears(peer, kSubscribed); })) {
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
    while (next < kMessages && hears(peer, text(next))) {
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
