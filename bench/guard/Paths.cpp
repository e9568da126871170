// The four hot paths, each in one process so that their instructions can be counted. The far end of
// the socket is worked by hand, with a read or a write a message. What the paths cost apart from
// that is what is guarded; start-up is taken out by running them twice, for N and 2 N messages.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "Api/Json/Client.h"
#include "Api/Json/Server.h"
#include "Kelvo/Platform/EventLoop.h"
#include "bench/baselines/EpollServer.h"
#include "bench/support/Driven.h"
#include "bench/support/Raw.h"
#include "bench/support/Work.h"

namespace {

using Bench::answerFrom;
using Bench::connectTo;
using Bench::writeRecord;
using Kelvo::Platform::EventLoop;

constexpr int kSubscribers = 100;

void turn() {
  if (!EventLoop::current().dispatch()) {
    throw std::runtime_error("the loop had nothing to do");
  }
}

Tovik::Message message(const char* text) {
  Tovik::Message message;
  Bench::parse(message, text);
  return message;
}

bool admitAll(int /*pid*/, unsigned /*uid*/, unsigned /*gid*/) {
  return true;
}

void serverRequest(const std::string& name, int count) {
  Tovik::Server server(
      name,
      [](Tovik::Connection& client, const Tovik::Message& msg) {
        client.acknowledge(Bench::understand(msg).status);
      },
      admitAll);
  const int client = connectTo(name);
  turn();
  for (int i = 0; i < count; ++i) {
    writeRecord(client, Bench::kRequest);
    turn();
    answerFrom(client);
  }
  ::close(client);
}

/// For comparison only: the same done by hand.
void baselineRequest(const std::string& name, int count) {
  Bench::EpollServer server(name);
  const int client = connectTo(name);
  server.turn();
  for (int i = 0; i < count; ++i) {
    writeRecord(client, Bench::kRequest);
    server.turn();
    answerFrom(client);
  }
  ::close(client);
}

void blockingCall(const std::string& name, int count) {
  const int listening = Bench::listenOn(name);
  const Tovik::Client client(name);
  const auto request = message(Bench::kRequest);
  const int server = static_cast<int>(Bench::must(::accept(listening, nullptr, nullptr), "accept"));
  for (int i = 0; i < count; ++i) {
    writeRecord(server, R"({"type":"reply","status":7})");
    Bench::expectStatus(static_cast<unsigned>(client.sendMsg(request, true)));
    answerFrom(server);
  }
  ::close(server);
  ::close(listening);
}

void asynchronousSend(const std::string& name, int count) {
  const int listening = Bench::listenOn(name);
  Tovik::AsyncClient client(
      name, [](auto&, const Tovik::Message&) {}, [](Tovik::AsyncClient&) {}, 1);
  turn();
  const auto request = message(Bench::kRequest);
  const int server = static_cast<int>(Bench::must(::accept(listening, nullptr, nullptr), "accept"));
  for (int i = 0; i < count; ++i) {
    client.asyncSendMsg(request);
    answerFrom(server);
  }
  ::close(server);
  ::close(listening);
}

/// `count` is that of messages delivered: every broadcast reaches all subscribers.
void broadcast(const std::string& name, int count) {
  Tovik::Server server(
      name, [](auto&, const Tovik::Message&) {}, admitAll);
  std::vector<int> clients;
  for (int i = 0; i < kSubscribers; ++i) {
    clients.push_back(connectTo(name));
    turn();
    writeRecord(clients.back(), Bench::kSubscription);
    turn();
    answerFrom(clients.back());
  }
  const auto news = message(Bench::kNews);
  for (int i = 0; i < count / kSubscribers; ++i) {
    server.notifyClients(news);
    for (const int client : clients) {
      answerFrom(client);
    }
  }
  for (const int client : clients) {
    ::close(client);
  }
}

using Path = void (*)(const std::string& name, int count);

/// The role of that path: its argument is the number of messages.
Bench::Role role(Path path) {
  return [path](const std::string& count) {
    path("bench-paths-" + std::to_string(::getpid()), std::atoi(count.c_str()));
  };
}

}  // namespace

int main(int argc, char** argv) {
  return Bench::runAs(argc, argv,
                      {{"baseline-request", role(baselineRequest)},
                       {"server-request", role(serverRequest)},
                       {"blocking-call", role(blockingCall)},
                       {"asynchronous-send", role(asynchronousSend)},
                       {"broadcast", role(broadcast)}});
}
