// The follower: a proxy connects, subscribes, and after a loss does so again.

#include <iostream>

#include "Api/Service/Proxy.h"
#include "examples/hostmon/Hostmon.h"

namespace Hostmon {

int watch(const std::string& name) {
  Tovik::Proxy host(name);
  host.onConnect([] { std::cout << "connected" << std::endl; });
  host.onLoss([](const std::string& why) { std::cout << "lost: " << why << std::endl; });
  host.subscribe("host", [](const Tovik::Message& event) {
    std::cout << "event: " << Tovik::Message::toStr(event, false) << std::endl;
  });
  runUntilSignalled();
  return 0;
}

}  // namespace Hostmon
