// A server in a libev loop, whose own timer makes the news. The message {"stop":true} ends it.

#include <Api/Json/Server.h>
#include <unistd.h>

#include <csignal>
#include <iostream>

#include "examples/loops/Libev.h"

static void tick(struct ev_loop* /*host*/, ev_timer* timer, int /*events*/) {
  Tovik::Message news;
  news.Parse(R"({"tick":true})");
  static_cast<Tovik::Server*>(timer->data)->notifyClients(news);
}

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  struct ev_loop* host = ev_default_loop(0);
  Tovik::Server server(
      argc > 1 ? argv[1] : "loops",
      [&](Tovik::Connection& client, const Tovik::Message& msg) {
        client.acknowledge(0);
        if (msg.HasMember("stop")) {
          ev_break(host, EVBREAK_ALL);
        }
      },
      [](int, unsigned uid, unsigned) { return uid == geteuid(); });
  ev_timer timer;
  ev_timer_init(&timer, &tick, 0.05, 0.05);
  timer.data = &server;
  ev_timer_start(host, &timer);

  std::cout << "ready" << std::endl;
  Libev(host).run();
  std::cout << "done" << std::endl;
}
