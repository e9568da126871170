// A server in a libuv loop, whose own timer makes the news. The message {"stop":true} ends it.

#include <Api/Json/Server.h>
#include <Kelvo/Adapters/Uv.h>
#include <unistd.h>

#include <csignal>
#include <iostream>

static void tick(uv_timer_t* timer) {
  Tovik::Message news;
  news.Parse(R"({"tick":true})");
  static_cast<Tovik::Server*>(timer->data)->notifyClients(news);
}

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  uv_loop_t* host = uv_default_loop();
  Tovik::Server server(
      argc > 1 ? argv[1] : "loops",
      [&](Tovik::Connection& client, const Tovik::Message& msg) {
        client.acknowledge(0);
        if (msg.HasMember("stop")) {
          uv_stop(host);
        }
      },
      [](int, unsigned uid, unsigned) { return uid == geteuid(); });
  uv_timer_t timer;
  uv_timer_init(host, &timer);
  timer.data = &server;
  uv_timer_start(&timer, &tick, 50, 50);

  std::cout << "ready" << std::endl;
  Kelvo::Adapters::Uv(host).run();
  std::cout << "done" << std::endl;
}
