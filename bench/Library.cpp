// The library as an application uses it: a server, a blocking client, an asynchronous client.

#include <unistd.h>

#include <chrono>
#include <stdexcept>

#include "Api/Json/Client.h"
#include "Api/Json/Server.h"
#include "Kelvo/Platform/EventLoop.h"
#include "bench/support/Driven.h"
#include "bench/support/Work.h"

namespace Bench {

namespace {

using Kelvo::Platform::EventLoop;

void serve(const std::string& name) {
  const auto news = parsed<Tovik::Message>(kNews);
  Tovik::Server server(
      name,
      [&](Tovik::Connection& client, const Tovik::Message& msg) {
        const Request request = understand(msg);
        if (request.wanted == Wanted::kNothing) {
          return;
        }
        if (request.wanted == Wanted::kBroadcast) {
          server.notifyClients(news);
        }
        client.acknowledge(request.status);
      },
      [](int /*pid*/, unsigned uid, unsigned /*gid*/) { return uid == ::geteuid(); });
  announceReady();
  EventLoop::current().run();
}

class Blocking : public Client {
 public:
  explicit Blocking(const std::string& name) : client_(name) {}

  void call() override { expectStatus(static_cast<unsigned>(client_.sendMsg(request_, true))); }

 private:
  void note() override {
    if (client_.sendMsg(note_, false) != 0) {
      throw std::runtime_error("a note was not sent");
    }
  }

  const Tovik::Client client_;
  const Tovik::Message request_ = parsed<Tovik::Message>(kRequest);
  const Tovik::Message note_ = parsed<Tovik::Message>(kNote);
};

class Asynchronous : public Client {
 public:
  explicit Asynchronous(const std::string& name)
      : client_(
            name,
            [this](auto&, const Tovik::Message& reply) {
              expectStatus(statusOf(reply));
              answered_ = true;
            },
            [](Tovik::AsyncClient&) {}, 1) {
    while (!client_.isAttached()) {
      EventLoop::current().runOnce(std::chrono::seconds(1));
    }
  }

  void call() override {
    answered_ = false;
    client_.asyncSendMsg(request_);
    while (!answered_) {
      EventLoop::current().runOnce(std::chrono::milliseconds(-1));
    }
  }

 private:
  bool answered_ = false;
  Tovik::AsyncClient client_;
  const Tovik::Message request_ = parsed<Tovik::Message>(kRequest);
};

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  return Bench::runAs(argc, argv,
                      {{"serve", Bench::serve},
                       {"drive", Bench::driveClient<Bench::Blocking>},
                       {"drive-async", Bench::driveClient<Bench::Asynchronous>}});
}
