// A service and its caller, in one process.

#include <Api/Service/Proxy.h>
#include <Api/Service/Service.h>
#include <Kelvo/Platform/EventLoop.h>
#include <unistd.h>

#include <string>

int main() {
  alarm(20);
  const std::string name = "tovik-package-service-" + std::to_string(getpid());
  auto& loop = Kelvo::Platform::EventLoop::current();
  Tovik::Service service(name, [](int, unsigned uid, unsigned) { return uid == getuid(); });
  service.command("add", "Adds one.", {Tovik::required<int>("to", "To what.")},
                  [](Tovik::Request request) { request.reply(request.get<int>("to") + 1); });
  Tovik::Proxy proxy(name);
  int result = 0;
  proxy.call(Tovik::object("command", "add", "to", 41), std::chrono::seconds(10),
             [&](Tovik::Outcome outcome) {
               result = outcome.get<int>().value_or(0);
               loop.stop();
             });
  loop.run();
  return result == 42 ? 0 : 1;
}
