#include "tests/service/Lamp.h"

#include <poll.h>

#include <stdexcept>

using Tovik::object;
using Tovik::Request;
using Tovik::required;

Lamp::Lamp(const Tovik::ServiceOptions& options, std::string name) : name_(std::move(name)) {
  service_ = std::make_unique<Tovik::Service>(
      name_, [](int, unsigned, unsigned) { return true; }, options);
  service_->command("switch", "Switches the lamp.", {required<bool>("on", "On or off.")},
                    [](Request request) { request.reply(); });
  service_->command(
      "add", "Adds two numbers.",
      {required<int>("a", "One."), Tovik::optional<int>("b", "The other.")},
      [](Request request) { request.reply(request.get<int>("a") + request.get<int>("b", 1)); });
  service_->command("keep", "Is answered later.", {},
                    [this](Request request) { kept.push_back(request); });
  service_->command("refuse", "Fails.", {}, [](Request) { throw Tovik::Refusal(13, "not you"); });
  service_->command("throw", "Breaks.", {}, [](Request) { throw std::runtime_error("broken"); });
  service_->command("count", "Counts to three, in parts.", {}, [](Request request) {
    request.more(1);
    request.more(2);
    request.reply(3);
  });
  service_->topic("plain", {"Nothing special."});
  service_->topic("state", {"Keeps its last value.", Tovik::Topic::kKeepLast});
  service_->topic(
      "level", {"Only the latest counts.", Tovik::Topic::kKeepNothing, Tovik::Topic::kQueueLatest});
  service_->onJoin([this](Tovik::Session& session) { joined.push_back(session.number()); });
  service_->onLeave([this](Tovik::Session& session) { left.push_back(session.number()); });
}

std::string Lamp::receive(const Fd& client) {
  pollfd query{client.get(), POLLIN, 0};
  turnUntil([&query] { return ::poll(&query, 1, 0) != 0; });
  return rawReceiveNow(client.get());
}

std::string Lamp::ask(const Fd& client, std::string_view record) {
  rawSend(client.get(), record);
  return receive(client);
}

void Lamp::tell(const Fd& client, std::string_view record) {
  rawSend(client.get(), record);
  turnUntilIdle();
}
