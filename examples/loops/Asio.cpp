// A server in an io_context, whose own timer makes the news. The message {"stop":true} ends it.
#include <Api/Json/Server.h>
#include <Kelvo/Adapters/Asio.h>
#include <unistd.h>
#include <asio/steady_timer.hpp>
#include <csignal>
#include <iostream>

static void tick(asio::steady_timer& timer, Tovik::Server& server) {
  timer.expires_after(std::chrono::milliseconds(50));
  timer.async_wait([&](const asio::error_code&) {
    Tovik::Message news;
    news.Parse(R"({"tick":true})");
    server.notifyClients(news);
    tick(timer, server);
  });
}

int main(int argc, char** argv) try {
  std::signal(SIGPIPE, SIG_IGN);
  asio::io_context host;
  Tovik::Server server(
      argc > 1 ? argv[1] : "loops",
      [&](Tovik::Connection& client, const Tovik::Message& msg) {
        client.acknowledge(0);
        if (msg.HasMember("stop")) {
          host.stop();
        }
      },
      [](int, unsigned uid, unsigned) { return uid == geteuid(); });
  asio::steady_timer timer(host);
  tick(timer, server);
  const Kelvo::Adapters::Asio adapter(host);
  std::cout << "ready" << std::endl;
  host.run();
  std::cout << "done" << std::endl;
} catch (const std::exception& failure) {  // also what a callback has thrown
  std::cerr << failure.what() << std::endl;
  return 1;
}
