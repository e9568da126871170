// The subscriber: connects, subscribes, prints, and after a loss does so again.

#include <iostream>
#include <string_view>

#include "Api/Json/Client.h"
#include "examples/hostmon/Hostmon.h"

namespace Hostmon {

namespace {

constexpr int kReconnectInterval = 1;  // seconds

class Watcher : public Tovik::AsyncClient {
 public:
  explicit Watcher(const std::string& name)
      : AsyncClient(
            name, [](auto&, const auto& msg) { print(msg); }, [this](auto&) { subscribe(); },
            kReconnectInterval) {}

  /// Every teardown comes through here, failed attempts included; a loss is one that ends a
  /// connection.
  void terminateConnection() override {
    const bool loss = isAttached();
    AsyncClient::terminateConnection();
    if (loss) {
      std::cout << "connection lost, trying again every " << kReconnectInterval << " s"
                << std::endl;
    }
  }

 private:
  void subscribe() {
    std::cout << (connectedBefore_ ? "reconnected, subscribing again" : "connected, subscribing")
              << std::endl;
    connectedBefore_ = true;
    Tovik::Message request;
    request.Parse(R"({"command":"set","notification":true})");
    asyncSendMsg(request);
  }

  static bool isReply(const Tovik::Message& msg) {
    if (!msg.IsObject() || !msg.HasMember("type")) {
      return false;
    }
    const auto& type = msg["type"];
    return type.IsString() && std::string_view(type.GetString()) == "reply";
  }

  static void print(const Tovik::Message& msg) {
    std::cout << (isReply(msg) ? "reply: " : "notification: ") << Tovik::Message::toStr(msg, false)
              << std::endl;
  }

  bool connectedBefore_ = false;
};

}  // namespace

int watch(const std::string& name) {
  const Watcher watcher(name);
  runUntilSignalled();
  return 0;
}

}  // namespace Hostmon
