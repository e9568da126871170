// The server: a timer that broadcasts, a handler that answers, a validator that admits.

#include <unistd.h>

#include <iostream>
#include <string_view>
#include <utility>

#include "Api/Json/Server.h"
#include "Kelvo/Platform/Debug.h"
#include "Kelvo/Platform/TimeoutHandler.h"
#include "examples/hostmon/Host.h"
#include "examples/hostmon/Hostmon.h"

namespace Hostmon {

namespace {

constexpr double kShortestInterval = 0.1;  // seconds
constexpr double kLongestInterval = 3600;

std::string_view textOf(const Tovik::Message& msg, const char* member) {
  const auto found = msg.FindMember(member);
  const bool isText = found != msg.MemberEnd() && found->value.IsString();
  return isText ? std::string_view(found->value.GetString()) : std::string_view();
}

class Monitor : public Kelvo::Platform::TimeoutHandler {
 public:
  Monitor(const std::string& name, Tovik::Server::Validator validator)
      : server_(
            name, [this](auto& client, const auto& msg) { handle(client, msg); },
            std::move(validator)),
        timer_(Kelvo::Platform::getTimer(this)) {
    timer_->arm(interval_);
  }

  void timeout() override {
    server_.freeDeadConnections();
    server_.notifyClients(Host::read().toMessage());
    timer_->arm(interval_);
  }

 private:
  void handle(Tovik::Connection& client, const Tovik::Message& msg) {
    const auto command = textOf(msg, "command");
    if (command == "interval") {
      client.acknowledge(setInterval(msg));
    } else if (command == "get") {
      get(client, textOf(msg, "value"));
    } else {
      client.acknowledge(kUnknownCommand);
    }
  }

  Status setInterval(const Tovik::Message& msg) {
    const auto seconds = msg.FindMember("seconds");
    if (seconds == msg.MemberEnd() || !seconds->value.IsNumber()) {
      return kBadArgument;
    }
    const double wanted = seconds->value.GetDouble();
    if (wanted < kShortestInterval || wanted > kLongestInterval) {
      return kBadArgument;
    }
    interval_ = wanted;
    timer_->arm(interval_);
    return kDone;
  }

  static void get(Tovik::Connection& client, std::string_view value) {
    const Host host = Host::read();
    Tovik::Message answer;
    answer.SetObject();
    answer.AddMember("type", "value", answer.GetAllocator());
    if (value == "load") {
      answer.AddMember("load", host.load, answer.GetAllocator());
    } else if (value == "memory") {
      answer.AddMember("memory", host.memoryMiB, answer.GetAllocator());
    } else if (value == "uptime") {
      answer.AddMember("uptime", host.uptime, answer.GetAllocator());
    } else {
      return client.acknowledge(kBadArgument);
    }
    client.sendMsg(answer);
  }

  Tovik::Server server_;
  Kelvo::Ptr<Kelvo::Platform::Timer> timer_;
  double interval_ = 1;
};

}  // namespace

int serve(const std::string& name, bool rootOnly) {
  // The library's own diagnostics: errors, and who was admitted or denied.
  Kelvo::Platform::setDebugSink("Tovik",
                                [](const auto& record) { std::cout << record.text << std::endl; });
  Kelvo::Platform::setDebugLevels("Tovik", 0b11);

  const Monitor monitor(name, [rootOnly, own = geteuid()](int /*pid*/, unsigned uid, unsigned) {
    return uid == 0 || (!rootOnly && uid == own);
  });
  std::cout << "listening as " << name << std::endl;
  runUntilSignalled();
  return 0;
}

}  // namespace Hostmon
